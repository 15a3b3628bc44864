// The routines that read the photo root link, inside the appliance sandbox:
// the album sync, the photo-row sweep, and the whole path from the queue
// through the daemon for R:photo and a folder rename.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "photo/photo_index.h"
#include "photo/photo_share.h"
#include "platform/orvodb.h"
#include "platform/photo_db.h"
#include "support/db_fixture.h"
#include "support/sandbox.h"

namespace {

namespace fs = std::filesystem;
using namespace orvo::test;

const std::string kShare = "/volume1/photo";

void Folder(const std::string& relative) { fs::create_directories(kShare + "/" + relative); }

void Picture(const std::string& relative) {
  std::string path = kShare + "/" + relative;
  fs::create_directories(fs::path(path).parent_path());
  std::string command = "ffmpeg -v error -y -f lavfi -i color=c=red:s=8x8 -frames:v 1 -f mjpeg '" + path + "' </dev/null";
  ASSERT_EQ(system(command.c_str()), 0) << command;
}

std::string Albums() { return QueryAll(OrvoDatabase::kPhoto, "select sharename from photo_share order by sharename"); }
std::string PhotoPaths() { return QueryAll(OrvoDatabase::kPhoto, "select path from photo_image order by path"); }

class PhotoShareInSandbox : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!InSandbox()) GTEST_SKIP() << kNotInSandbox;
  }
};

// A full sync keeps albums and sub-albums that exist, adds the missing ones,
// sweeps rows of vanished folders and never lists #recycle, @eaDir, hidden
// or level-2 folders. The working folder is the same afterwards.
TEST_F(PhotoShareInSandbox, FullSyncMarksExistingAndSweepsVanished) {
  for (const char* name : {"A/s1/deep", "A/s2", "B", "#recycle/old", "@eaDir", "A/@eaDir", ".hidden", "q'x%_\\"}) Folder(name);
  for (const char* album : {"/A", "/gone", "/A/gone"}) ASSERT_EQ(ORVOPhotoShareUpdate((kShare + album).c_str(), 1), 0);
  fs::path before = fs::current_path();
  EXPECT_EQ(ORVOPhotoShareSync(nullptr), 0);
  EXPECT_EQ(Albums(), "A\nA/s1\nA/s2\nB\nq'x%_\\");
  EXPECT_EQ(QueryAll(OrvoDatabase::kPhoto, "select count(*) from photo_share where updated = 'false'"), "0");
  EXPECT_EQ(fs::current_path(), before);
}

// New albums take albumdefpublic ("yes" in any case); without the key they
// are private and the message names the other key, as it always has.
TEST_F(PhotoShareInSandbox, AlbumDefaultPublicFromConfig) {
  std::ofstream("/etc/orvoinfo.conf") << "albumdefpublic=YES\n";
  ASSERT_EQ(ORVOPhotoShareUpdate((kShare + "/open").c_str(), 1), 0);
  std::ofstream("/etc/orvoinfo.conf") << "other=1\n";
  ASSERT_EQ(ORVOPhotoShareUpdate((kShare + "/closed").c_str(), 1), 0);
  EXPECT_EQ(QueryAll(OrvoDatabase::kPhoto, "select sharename, public from photo_share order by sharename"),
            "closed|f\nopen|t");
  EXPECT_EQ(SandboxLogCount("Can't get key valude. key=supportcinedock"), 1);
}

// The photo-row sweep adds new pictures, refreshes known ones, drops rows of
// vanished files, and leaves #recycle, @eaDir and names without '.' alone.
// Only new pictures are sent for thumbnails; a link back up ends no walk.
TEST_F(PhotoShareInSandbox, SweepReconcilesPhotoRows) {
  for (const char* name : {"A/x.jpg", "A/sub/y.jpg", "A/noext", "#recycle/r.jpg", "A/@eaDir/t.jpg", "A/gone.jpg"}) Picture(name);
  ASSERT_EQ(ORVOPhotoIndexAdd((kShare + "/A/gone.jpg").c_str(), 1), 0);
  ASSERT_EQ(ORVOPhotoIndexAdd((kShare + "/A/x.jpg").c_str(), 1), 0);
  fs::remove(kShare + "/A/gone.jpg");
  fs::create_directory_symlink("..", kShare + "/A/up");
  fs::path before = fs::current_path();
  CheckPhotoShareFs();
  EXPECT_EQ(ORVOPhotoSweep(nullptr), 0);
  EXPECT_EQ(PhotoPaths(), kShare + "/A/sub/y.jpg\n" + kShare + "/A/x.jpg");
  EXPECT_EQ(fs::current_path(), before);
  std::ifstream queue("/var/spool/orvo_thumb_queue");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(queue), {}), "3:" + kShare + "/A/sub/y.jpg\n");
}

// End to end through the daemon: R:photo fills the photo rows and the album
// table; a folder rename moves both.
TEST_F(PhotoShareInSandbox, DaemonReindexAndRenameThroughQueue) {
  Picture("Trip/day1/a.jpg");
  Picture("Trip/b.jpg");
  Folder("Other");
  // The fast clock is preloaded ahead of a sanitizer runtime; let it be.
  std::vector<std::string> env = kFastClock;
  env.push_back("ASAN_OPTIONS=verify_asan_link_order=0");
  pid_t pid = StartDaemon(env);
  ASSERT_GT(pid, 0);
  ASSERT_TRUE(AppendQueueLine("R:photo") && SignalDaemon() && WaitForHups(1));
  EXPECT_EQ(PhotoPaths(), kShare + "/Trip/b.jpg\n" + kShare + "/Trip/day1/a.jpg");
  EXPECT_EQ(Albums(), "Other\nTrip\nTrip/day1");
  fs::rename(kShare + "/Trip", kShare + "/Voyage");
  ASSERT_TRUE(AppendQueueLine("N:" + kShare + "/Voyage:" + kShare + "/Trip") && SignalDaemon() && WaitForHups(2));
  EXPECT_EQ(PhotoPaths(), kShare + "/Voyage/b.jpg\n" + kShare + "/Voyage/day1/a.jpg");
  EXPECT_EQ(Albums(), "Other\nVoyage\nVoyage/day1");
  EXPECT_GE(StopDaemon(pid), 0);
}

}  // namespace
