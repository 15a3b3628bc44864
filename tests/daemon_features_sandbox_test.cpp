// The two feature switches read at start-up, seen through what the daemon
// does to the photo database for a picture in the photo share.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "daemon_sandbox_env.h"
#include "support/sandbox.h"

namespace {

namespace fs = std::filesystem;
using namespace orvo::test;

constexpr char kPicture[] = "/volume1/photo/p.jpg";

class FeatureSwitches : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!InSandbox()) GTEST_SKIP() << kNotInSandbox;
    const std::string cmd = std::string("ffmpeg -loglevel error -y -f lavfi -i color=red:s=16x16 ") +
                            "-frames:v 1 " + kPicture + " </dev/null";
    ASSERT_EQ(system(cmd.c_str()), 0);
  }
  void TearDown() override {
    if (pid_ > 0) StopDaemon(pid_);
  }

  // Starts the daemon on this configuration and indexes the picture.
  void IndexPictureWith(const std::string& config) {
    std::ofstream("/etc.defaults/orvoinfo.conf") << config;
    std::ofstream(kQueueFile) << "a:" << kPicture << "\n";
    pid_ = StartDaemon(FastDaemonClock());
    ASSERT_GT(pid_, 0);
    ASSERT_TRUE(WaitForHups(1));
  }

  static size_t MediaRows() { return QuerySqlite(kMediaDbFile, "select path from photo").size(); }
  static size_t PhotoRows() {
    auto rows = QuerySqlite(kPhotoDbFile, "select path from photo_image");
    // No photo database file at all counts as no rows.
    if (rows.size() == 1 && rows[0].size() == 1 && rows[0][0].rfind("error:", 0) == 0) return 0;
    return rows.size();
  }

  pid_t pid_ = -1;
};

TEST_F(FeatureSwitches, PhotoSwitchOnReachesThePhotoDatabase) {
  IndexPictureWith("supportcinedock=no\nsupportphoto=\"YES\"\n");
  EXPECT_EQ(MediaRows(), 1u);
  EXPECT_EQ(PhotoRows(), 1u);
}

TEST_F(FeatureSwitches, PhotoSwitchOffKeepsToTheMediaDatabase) {
  IndexPictureWith("supportcinedock=yes\nsupportphoto=no\n");
  EXPECT_EQ(MediaRows(), 1u);
  EXPECT_EQ(PhotoRows(), 0u);
}

// Both keys are read into one buffer that is not cleared in between, so a
// missing supportphoto takes the supportcinedock value.
TEST_F(FeatureSwitches, MissingPhotoKeyTakesTheFirstKeysValue) {
  IndexPictureWith("supportcinedock=yes\n");
  EXPECT_EQ(SandboxLogCount("Can't get key value. key=supportphoto"), 1);
  EXPECT_EQ(PhotoRows(), 1u);
}

}  // namespace
