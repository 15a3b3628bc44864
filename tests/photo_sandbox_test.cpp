// The routines that read the photo root link, run inside the appliance
// sandbox, alone and through the daemon's queue.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "photo/photo_index.h"
#include "photo/photo_share.h"
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

// A full sync keeps the albums that exist, adds missing ones (public if
// albumdefpublic says yes in any case; sub-albums take their album's flag),
// drops vanished ones, skips #recycle, @eaDir, hidden and level-2 folders.
TEST(PhotoShareInSandbox, FullSyncMarksExistingAndSweepsVanished) {
  if (!InSandbox()) GTEST_SKIP() << kNotInSandbox;
  for (const char* name : {"A/s1/deep", "A/s2", "B", "#recycle/old", "@eaDir", "A/@eaDir", ".hidden", "q'x%_\\"}) Folder(name);
  std::ofstream("/etc/orvoinfo.conf") << "other=1\n";
  for (const char* album : {"/A", "/gone", "/A/gone"}) ASSERT_EQ(ORVOPhotoShareUpdate((kShare + album).c_str(), 1), 0);
  std::ofstream("/etc/orvoinfo.conf") << "albumdefpublic=YES\n";
  fs::path before = fs::current_path();
  EXPECT_EQ(ORVOPhotoShareSync(nullptr), 0);
  EXPECT_EQ(QueryAll(OrvoDatabase::kPhoto, "select sharename, public, updated from photo_share order by sharename"),
            "A|f|t\nA/s1|f|t\nA/s2|f|t\nB|t|t\nq'x%_\\|t|t");
  EXPECT_EQ(fs::current_path(), before);
}

// The sweep adds new pictures (and asks thumbnails for those only), drops
// vanished ones, skips #recycle, @eaDir, names without '.' and a link back up.
TEST(PhotoShareInSandbox, SweepReconcilesPhotoRows) {
  if (!InSandbox()) GTEST_SKIP() << kNotInSandbox;
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
TEST(PhotoShareInSandbox, DaemonReindexAndRenameThroughQueue) {
  if (!InSandbox()) GTEST_SKIP() << kNotInSandbox;
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
