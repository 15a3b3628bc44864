// Hostile trees through the daemon: folders that link to each other, a child path cut at the path
// buffer, and a share whose folder is missing when it is re-indexed.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <set>

#include "formats_testutil.h"
#include "mp3_test_bytes.h"
#include "photo/photo_index.h"
#include "photo/photo_share.h"
#include "platform/orvodb.h"
#include "support/sandbox.h"

namespace {

using namespace orvo::test;
using Paths = std::multiset<std::string>;

const std::string kMusic = "/volume1/music";
const std::string kPhoto = "/volume1/photo";
const std::string kThumbQueue = "/var/spool/orvo_thumb_queue";

Paths PhotoRows() { return Column(kPhotoDbFile, "select path from photo_image"); }
Paths Albums() { return Column(kPhotoDbFile, "select sharename from photo_share"); }
Paths ThumbnailRequests() {
  Paths out;
  std::istringstream in(ReadFile(kThumbQueue));
  for (std::string line; std::getline(in, line);) out.insert(line);
  return out;
}

void WriteMp3(const std::string& path) { formats_test::WriteBytes(path, mp3test::TaggedMp3("Song")); }

using WalkGuardSandbox = DaemonSandboxTest;

// Eight albums that all link to each other once took R:photo 15 s and left 109,600 rows under alias
// paths. Every walk of the photo share now leaves one row per picture and per album folder, under its
// real path; a link out of the share is still followed; rows left under an alias earlier are swept.
TEST_F(WalkGuardSandbox, CrossLinkedPhotoFoldersGetOneRowEachInEveryWalk) {
  formats_test::TempDir tmp;
  const std::string jpeg = tmp.File("p.jpg");
  ASSERT_TRUE(WriteJpeg(jpeg));
  const std::vector<std::string> albums = {"A0", "A1", "A2", "A3", "A4", "A5", "A6", "A7"};
  CrossLink(kPhoto, albums);
  Paths pictures, folders = {"Ext"};
  for (const std::string& album : albums) {
    fs::create_directories(kPhoto + "/" + album + "/S");
    fs::create_directory_symlink("../..", kPhoto + "/" + album + "/S/root");
    for (const std::string& picture : {album + "/p.jpg", album + "/S/q.jpg"}) {
      fs::copy_file(jpeg, kPhoto + "/" + picture);
      pictures.insert(kPhoto + "/" + picture);
    }
    folders.insert({album, album + "/S"});
  }
  fs::create_directory_symlink("A0", kPhoto + "/Z");  // an album that is another album
  fs::create_directories("/volume1/elsewhere");
  fs::copy_file(jpeg, "/volume1/elsewhere/o.jpg");
  fs::create_directory_symlink("/volume1/elsewhere", kPhoto + "/Ext");
  pictures.insert(kPhoto + "/Ext/o.jpg");
  // What an earlier walk left under alias paths.
  ASSERT_EQ(ORVOPhotoShareUpdate((kPhoto + "/A1").c_str(), 1), 0);
  ASSERT_EQ(ORVOPhotoShareUpdate((kPhoto + "/A1/to_A2").c_str(), 1), 0);
  ASSERT_EQ(ORVOPhotoIndexAdd((kPhoto + "/A1/to_A2/p.jpg").c_str(), 1), 0);
  ORVODBCloseAll();

  StartIdle();
  ASSERT_TRUE(RunLines({"R:photo"}));
  EXPECT_EQ(PhotoRows(), pictures);
  EXPECT_EQ(Albums(), folders);
  Paths requests;
  for (const std::string& picture : pictures) requests.insert("3:" + picture);
  EXPECT_EQ(ThumbnailRequests(), requests);

  ASSERT_TRUE(RunLines({"U:photo"}));
  EXPECT_EQ(PhotoRows(), pictures);
  EXPECT_EQ(ThumbnailRequests(), requests);  // a refresh asks for none

  ASSERT_TRUE(RunLines({"A:" + kPhoto + "/A3"}));
  EXPECT_EQ(PhotoRows(), pictures);
  EXPECT_EQ(Albums(), folders);
  requests.insert({"3:" + kPhoto + "/A3/p.jpg", "3:" + kPhoto + "/A3/S/q.jpg"});
  EXPECT_EQ(ThumbnailRequests(), requests);
  EXPECT_EQ(Column(kMediaDbFile, "select path from photo"), (Paths{kPhoto + "/A3/p.jpg", kPhoto + "/A3/S/q.jpg"}));
  EXPECT_EQ(Column(kMediaDbFile, "select path from directory"), (Paths{kPhoto + "/A3", kPhoto + "/A3/S"}));
}

// A child path cut at the 4096-byte buffer used to reach the photo upkeep as it was cut: a thumbnail
// request and a photo row attempt for a file that does not exist. It is passed by without a word.
TEST_F(WalkGuardSandbox, CutChildPathGetsNoRowNoThumbnailAndNoMessage) {
  formats_test::TempDir tmp;
  const std::string jpeg = tmp.File("p.jpg");
  ASSERT_TRUE(WriteJpeg(jpeg));
  // The deepest folder is 4089 bytes long, so ".../a.jpg.jpg" is cut to ".../a.jpg", which does not exist.
  ASSERT_TRUE(fs::create_directory(kPhoto + "/deep"));
  std::string path;
  const int fd = MakeFolderChain(kPhoto + "/deep", 4089, &path);
  ASSERT_GE(fd, 0);
  const std::string bytes = formats_test::ReadBytes(jpeg);
  const int file = openat(fd, "a.jpg.jpg", O_WRONLY | O_CREAT, 0644);
  close(fd);
  ASSERT_GE(file, 0);
  ASSERT_EQ(write(file, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  close(file);

  StartIdle();
  for (const std::string& line : {"A:" + kPhoto + "/deep", std::string("U:photo"), std::string("R:photo")}) {
    SCOPED_TRACE(line);
    ASSERT_TRUE(RunLines({line}));
    EXPECT_EQ(PhotoRows(), Paths{});
    EXPECT_EQ(ThumbnailRequests(), Paths{});
    EXPECT_EQ(SandboxLogCount("a.jpg"), 0);
  }
  EXPECT_EQ(Column(kMediaDbFile, "select path from photo"), Paths{});
  // The walk did reach the folder that holds the file.
  EXPECT_EQ(Column(kMediaDbFile, "select count(*) from directory where length(path) = 4089"), Paths{"1"});
}

// A share whose folder is missing (its volume did not mount) used to be emptied by R: and stayed empty
// until the next re-index. Its rows stay, the log says why, and the shares that are there are redone.
TEST_F(WalkGuardSandbox, ReindexKeepsTheRowsOfAShareWhoseFolderIsMissing) {
  ASSERT_TRUE(WriteJpeg(kPhoto + "/Trip/p.jpg"));
  WriteMp3(kMusic + "/a.mp3");
  WriteMp3("/volume1/video/v.mp3");
  StartIdle();
  ASSERT_TRUE(RunLines({"R:all"}));
  ASSERT_TRUE(RunLines({"R:photo"}));
  const Paths music = {kMusic + "/a.mp3", "/volume1/video/v.mp3"};
  ASSERT_EQ(Column(kMediaDbFile, "select path from music"), music);

  fs::rename("/volume1/video", "/volume1/video-offline");
  fs::rename(kPhoto, "/volume1/photo-offline");
  WriteMp3(kMusic + "/b.mp3");
  ASSERT_TRUE(RunLines({"R:all"}));
  EXPECT_EQ(Column(kMediaDbFile, "select path from music"),
            (Paths{kMusic + "/a.mp3", kMusic + "/b.mp3", "/volume1/video/v.mp3"}));
  EXPECT_EQ(Column(kMediaDbFile, "select path from photo"), Paths{kPhoto + "/Trip/p.jpg"});
  EXPECT_EQ(SandboxLogCount("Cannot open share folder /volume1/video (No such file or directory); its rows are kept."), 1);
  EXPECT_EQ(SandboxLogCount("Cannot open share folder /volume1/photo (No such file or directory)"), 1);

  ASSERT_TRUE(RunLines({"R:photo"}));
  EXPECT_EQ(PhotoRows(), Paths{kPhoto + "/Trip/p.jpg"});
  EXPECT_EQ(Albums(), Paths{"Trip"});
  EXPECT_EQ(SandboxLogCount("Cannot open share folder /volume1/photo (No such file or directory)"), 2);

  fs::rename("/volume1/video-offline", "/volume1/video");
  fs::rename("/volume1/photo-offline", kPhoto);
  fs::remove("/volume1/video/v.mp3");
  ASSERT_TRUE(RunLines({"R:all"}));
  EXPECT_EQ(Column(kMediaDbFile, "select path from music"), (Paths{kMusic + "/a.mp3", kMusic + "/b.mp3"}));
  EXPECT_EQ(Column(kMediaDbFile, "select path from photo"), Paths{kPhoto + "/Trip/p.jpg"});
}

}  // namespace
