// The two feature switches read at start-up, seen through what the daemon
// does to the photo database for a picture in the photo share.
#include "daemon_sandbox_env.h"

namespace {

using namespace orvo::test;

class FeatureSwitches : public DaemonSandboxTest {
 protected:
  // Starts the daemon on this configuration with the picture queued; returns
  // its photo_image row count (no photo database file counts as none).
  size_t PhotoRowsWith(const std::string& config) {
    const char* cmd = "ffmpeg -loglevel error -y -f lavfi -i color=red:s=16x16 -frames:v 1 /volume1/photo/p.jpg </dev/null";
    EXPECT_EQ(system(cmd), 0);
    std::ofstream("/etc.defaults/orvoinfo.conf") << config;
    std::ofstream(kQueueFile) << "a:/volume1/photo/p.jpg\n";
    pid_ = StartDaemon(FastDaemonClock());
    EXPECT_TRUE(pid_ > 0 && WaitForHups(1));
    EXPECT_EQ(QuerySqlite(kMediaDbFile, "select path from photo").size(), 1u);
    auto rows = QuerySqlite(kPhotoDbFile, "select path from photo_image");
    return rows.size() == 1 && rows[0][0].rfind("error:", 0) == 0 ? 0 : rows.size();
  }
};

TEST_F(FeatureSwitches, PhotoSwitchOnReachesThePhotoDatabase) {
  EXPECT_EQ(PhotoRowsWith("supportcinedock=no\nsupportphoto=\"YES\"\n"), 1u);
}

TEST_F(FeatureSwitches, PhotoSwitchOffKeepsToTheMediaDatabase) {
  EXPECT_EQ(PhotoRowsWith("supportcinedock=yes\nsupportphoto=no\n"), 0u);
}

// Both keys are read into one buffer that is not cleared in between, so a
// missing supportphoto takes the supportcinedock value.
TEST_F(FeatureSwitches, MissingPhotoKeyTakesTheFirstKeysValue) {
  EXPECT_EQ(PhotoRowsWith("supportcinedock=yes\n"), 1u);
  EXPECT_EQ(SandboxLogCount("Can't get key value. key=supportphoto"), 1);
}

}  // namespace
