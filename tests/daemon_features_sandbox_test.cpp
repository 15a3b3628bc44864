// The feature switches read at start-up, seen through the photo database rows of a queued picture.
#include "support/sandbox.h"

namespace {

using namespace orvo::test;

class FeatureSwitches : public DaemonSandboxTest {
 protected:
  // The photo_image rows (no database file: none) after a start on `config` with a picture queued.
  size_t PhotoRowsWith(const std::string& config) {
    const char* cmd = "ffmpeg -loglevel error -y -f lavfi -i color=red:s=16x16 -frames:v 1 /volume1/photo/p.jpg </dev/null";
    EXPECT_EQ(system(cmd), 0);
    std::ofstream("/etc.defaults/orvoinfo.conf") << config;
    std::ofstream(kQueueFile) << "a:/volume1/photo/p.jpg\n";
    pid_ = StartDaemon(kFastClock);
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

// Deliberate: both keys share one uncleared buffer, so a missing supportphoto takes supportcinedock's value.
TEST_F(FeatureSwitches, MissingPhotoKeyTakesTheFirstKeysValue) {
  EXPECT_EQ(PhotoRowsWith("supportcinedock=yes\n"), 1u);
  EXPECT_EQ(SandboxLogCount("Can't get key value. key=supportphoto"), 1);
}

}  // namespace
