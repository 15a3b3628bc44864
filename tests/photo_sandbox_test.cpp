// The routines that read the photo root link, inside the appliance sandbox:
// the album sync and tree add, the photo-row sweep, and the whole path from
// the queue through the daemon for R:photo and a folder rename.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
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

std::string ThumbnailRequests() {
  std::ifstream queue("/var/spool/orvo_thumb_queue");
  std::stringstream text;
  text << queue.rdbuf();
  return text.str();
}

std::string WorkingFolder() {
  char buffer[4096] = {};
  return getcwd(buffer, sizeof buffer) != nullptr ? buffer : "";
}

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
  for (const char* folder : {"A/s1/deep", "A/s2", "B", "#recycle/old", "@eaDir", "A/@eaDir", ".hidden", "q'x%_\\"}) {
    Folder(folder);
  }
  ASSERT_EQ(ORVOPhotoShareUpdate((kShare + "/A").c_str(), 1), 0);
  ASSERT_EQ(ORVOPhotoShareUpdate((kShare + "/gone").c_str(), 1), 0);
  ASSERT_EQ(ORVOPhotoShareUpdate((kShare + "/A/gone").c_str(), 1), 0);
  std::string before = WorkingFolder();

  EXPECT_EQ(ORVOPhotoShareSync(nullptr), 0);
  EXPECT_EQ(Albums(), "A\nA/s1\nA/s2\nB\nq'x%_\\");
  EXPECT_EQ(QueryAll(OrvoDatabase::kPhoto, "select count(*) from photo_share where updated = 'false'"), "0");
  EXPECT_EQ(WorkingFolder(), before);
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

// Adding a tree adds the album and its folders; unlike the sync it keeps a
// #recycle folder below an album.
TEST_F(PhotoShareInSandbox, AddTreeAddsAlbumAndSubAlbums) {
  for (const char* folder : {"C/one/deep", "C/two", "C/#recycle", "C/@eaDir"}) Folder(folder);
  std::string before = WorkingFolder();
  EXPECT_EQ(ORVOPhotoShareAddTree((kShare + "/C").c_str()), 0);
  EXPECT_EQ(Albums(), "C\nC/#recycle\nC/one\nC/two");
  EXPECT_EQ(WorkingFolder(), before);
}

// A rename of a folder that never had a row builds it afresh (and still
// answers -1, as it always has).
TEST_F(PhotoShareInSandbox, RenameOfUnknownFolderAddsTree) {
  Folder("D/sub");
  EXPECT_EQ(ORVOPhotoShareRename((kShare + "/D").c_str(), (kShare + "/was").c_str()), -1);
  EXPECT_EQ(Albums(), "D\nD/sub");
}

// The photo-row sweep adds new pictures, refreshes known ones, drops rows of
// vanished files, and leaves #recycle, @eaDir and names without '.' alone.
TEST_F(PhotoShareInSandbox, SweepReconcilesPhotoRows) {
  Picture("A/x.jpg");
  Picture("A/sub/y.jpg");
  Picture("A/noext");
  Picture("#recycle/r.jpg");
  Picture("A/@eaDir/t.jpg");
  Picture("A/gone.jpg");
  ASSERT_EQ(ORVOPhotoIndexAdd((kShare + "/A/gone.jpg").c_str(), 1), 0);
  ASSERT_EQ(ORVOPhotoIndexAdd((kShare + "/A/x.jpg").c_str(), 1), 0);
  fs::remove(kShare + "/A/gone.jpg");
  std::string before = WorkingFolder();

  CheckPhotoShareFs();
  EXPECT_EQ(ORVOPhotoSweep(nullptr), 0);
  EXPECT_EQ(PhotoPaths(), kShare + "/A/sub/y.jpg\n" + kShare + "/A/x.jpg");
  EXPECT_EQ(WorkingFolder(), before);
  // Only new pictures are sent for thumbnails; known ones are refreshed.
  EXPECT_EQ(ThumbnailRequests(), "3:" + kShare + "/A/sub/y.jpg\n");
}

// A video file counts as known when the video application has a row for it:
// only then is its photo-database row refreshed; a new one only gets its
// thumbnails asked for.
TEST_F(PhotoShareInSandbox, SweepRefreshesOnlyKnownVideos) {
  Picture("V/known.avi");
  Picture("V/new.avi");
  ASSERT_GE(PhotoDBExec(("insert into video_desc (path) values ('" + kShare + "/V/known.avi')").c_str()), 0);
  EXPECT_EQ(ORVOPhotoSweep(nullptr), 0);
  EXPECT_EQ(QueryAll(OrvoDatabase::kPhoto, "select path from photo_video"), kShare + "/V/known.avi");
  EXPECT_EQ(ThumbnailRequests(), "3:" + kShare + "/V/new.avi\n");
}

// A link inside the share that points back up must not make the sweep walk
// forever.
TEST_F(PhotoShareInSandbox, SweepSurvivesLinkLoop) {
  Picture("L/a.jpg");
  fs::create_directory_symlink("..", kShare + "/L/up");
  EXPECT_EQ(ORVOPhotoSweep(nullptr), 0);
  EXPECT_EQ(QueryAll(OrvoDatabase::kPhoto, "select count(*) from photo_image where path like '%/a.jpg'"), "1");
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
  ASSERT_TRUE(AppendQueueLine("R:photo"));
  ASSERT_TRUE(SignalDaemon());
  ASSERT_TRUE(WaitForHups(1));

  auto rows = [](const std::string& sql) {
    std::string out;
    for (const auto& row : QuerySqlite(kPhotoDbFile, sql)) out += (out.empty() ? "" : "\n") + row.at(0);
    return out;
  };
  EXPECT_EQ(rows("select path from photo_image order by path"),
            kShare + "/Trip/b.jpg\n" + kShare + "/Trip/day1/a.jpg");
  EXPECT_EQ(rows("select sharename from photo_share order by sharename"), "Other\nTrip\nTrip/day1");

  fs::rename(kShare + "/Trip", kShare + "/Voyage");
  ASSERT_TRUE(AppendQueueLine("N:" + kShare + "/Voyage:" + kShare + "/Trip"));
  ASSERT_TRUE(SignalDaemon());
  ASSERT_TRUE(WaitForHups(2));
  EXPECT_EQ(rows("select path from photo_image order by path"),
            kShare + "/Voyage/b.jpg\n" + kShare + "/Voyage/day1/a.jpg");
  EXPECT_EQ(rows("select sharename from photo_share order by sharename"), "Other\nVoyage\nVoyage/day1");
  EXPECT_GE(StopDaemon(pid), 0);
}

}  // namespace
