// Handler lookup, the recycle bin, and folder walks on each backend (rows, link loops, long paths).
#include <fcntl.h>

#include <fstream>

#include "index/handler_table.h"
#include "index/index.h"
#include "platform/read_advice.h"
#include "platform/share_paths.h"
#include "support/db_fixture.h"

namespace {

// Which handler a path gets: by the last dot of the whole path, any case.
TEST(HandlerLookup, ExtensionCaseIsIgnoredAndOnlyTheLastDotCounts) {
  const MediaHandlerRow* mp3 = FindMediaHandler("/volume1/music/song.mp3");
  ASSERT_NE(mp3, nullptr);
  EXPECT_EQ(mp3->index, IndexMp3);
  for (const char* name : {"/volume1/music/SONG.MP3", "/volume1/music/.mp3"}) EXPECT_EQ(FindMediaHandler(name), mp3) << name;
  EXPECT_EQ(FindMediaHandler("/x/Clip.FlV"), FindMediaHandler("/x/clip.flv"));
  for (const char* name : {"/volume1/music/song.mp3.part", "/volume1/a.mp3/file", "/volume1/music/noextension",
                           "/volume1/music/trailingdot.", "/a/x.mkv", "/a/x.m4v", "/a/x.txt"})
    EXPECT_EQ(FindMediaHandler(name), nullptr) << name;
}

// Deliberate rows: FLAC removed as plain audio, .mp4 indexed as video but .m4a by the MP4 reader.
TEST(HandlerLookup, DeliberateOddRowsAreKept) {
  EXPECT_EQ(FindMediaHandler("/a/x.flac")->remove, RemoveAudio);
  EXPECT_EQ(FindMediaHandler("/a/x.mp4")->index, IndexVideo);
  EXPECT_EQ(FindMediaHandler("/a/x.m4a")->index, IndexMp4);
}

TEST(VideoExtension, ExactlyTheVideoRowsCount) {
  for (const char* name : {"/a/x.avi", "/a/x.dat", "/a/x.DIVX", "/a/x.rm", "/a/x.flv", "/a/x.mp4"})
    EXPECT_EQ(IsVideoExtension(name), 1) << name;
  for (const char* name : {"/a/x.wpl", "/a/x.jpg", "/a/x.m4v", "/a/x.m4a", "/a/novideo", static_cast<const char*>(nullptr)})
    EXPECT_EQ(IsVideoExtension(name), 0) << (name ? name : "(null)");
}

TEST(RecycleBin, OnlyAtTheTopOfAShare) {
  for (const char* path : {"/volume1/music/#recycle", "/volume1/music/#recycle/a/b.mp3"})
    EXPECT_EQ(IsInRecycleBin(path), 1) << path;
  for (const char* path : {"/volume1/music/#recycle2", "/volume1/music/#recyclebin/x", "/volume1/music/a/#recycle",
                           "/volume1/#recycle", "/volume1/music", "/volume1/music/", static_cast<const char*>(nullptr)})
    EXPECT_EQ(IsInRecycleBin(path), 0) << (path ? path : "(null)");
}

// A share laid out in /tmp/<name>, two components deep like /volume1/<share>.
class IndexWalk : public orvo::test::DatabaseTest {
 protected:
  void SetUp() override {
    DatabaseTest::SetUp();
    share_ = "/tmp/orvo_walk_" + std::to_string(getpid());
    fs::remove_all(share_);
    fs::create_directories(share_);
  }
  void TearDown() override {
    fs::remove_all(share_);
    DatabaseTest::TearDown();
  }
  // Folder rows relative to the share ("." for the share itself).
  std::set<std::string> Walk() {
    IndexFolder(share_.c_str(), kFolderAdd, kIndexMediaDb);
    ORVODBFlush();
    std::set<std::string> rows;
    std::istringstream in(orvo::test::QueryAll(OrvoDatabase::kMedia, "select path from directory"));
    for (std::string path; std::getline(in, path);) rows.insert(path == share_ ? "." : path.substr(share_.size() + 1));
    return rows;
  }
  std::string share_;
};

TEST_P(IndexWalk, DirectoryRowsSkipRecycleBinAndThumbnailFolders) {
  for (const char* d : {"a/#recycle/deep", "a/@eaDir/x", "#recycle/old", "b/c/@eaDir", ".hidden"})
    fs::create_directories(share_ + "/" + d);
  EXPECT_EQ(Walk(), (std::set<std::string>{".", "a", "a/#recycle", "a/#recycle/deep", "b", "b/c", ".hidden"}));
}

// Folders that all link to each other used to be walked once per path through the links (six took
// thousands of rows); each is entered once, under its real path, whether a link is relative, absolute,
// to the share, to itself or to nothing, and a folder outside the share that two links lead to is
// entered once, under the first of them the walk meets.
TEST_P(IndexWalk, LinkedFoldersAreEnteredOnceUnderTheirRealPath) {
  const std::string outside = share_ + "_outside";
  fs::remove_all(outside);
  fs::create_directories(outside + "/x");
  const std::vector<std::string> names = {"f0", "f1", "f2", "f3", "f4", "f5"};
  orvo::test::CrossLink(share_, names);
  fs::create_directory_symlink(share_, share_ + "/f2/root");  // absolute, to the share itself
  fs::create_directory_symlink(share_ + "/f3", share_ + "/f3/self");
  fs::create_symlink(share_ + "/missing", share_ + "/dangling");
  std::set<std::string> expected = {"."};
  expected.insert(names.begin(), names.end());
  fs::create_directory_symlink(outside, share_ + "/f0/out");
  fs::create_directory_symlink(outside, share_ + "/f1/out");
  std::set<std::string> rows = Walk();
  fs::remove_all(outside);
  const bool viaF0 = rows.count("f0/out") != 0;
  expected.insert({viaF0 ? "f0/out" : "f1/out", viaF0 ? "f0/out/x" : "f1/out/x"});
  EXPECT_EQ(rows, expected);
}

// A child path cut short at the 4096-byte buffer can name its own parent: no loop, no overrun.
TEST_P(IndexWalk, PathsAtTheBufferLimitEndTheWalk) {
  std::string path;
  const int fd = orvo::test::MakeFolderChain(share_, 4095, &path);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(mkdirat(fd, "below", 0755), 0);
  ASSERT_EQ(mkdirat(fd, "x.mp3", 0755), 0);
  close(fd);
  orvo::test::LogCapture log;
  const auto rows = Walk();
  EXPECT_TRUE(rows.count(path.substr(share_.size() + 1)));
  EXPECT_LT(rows.size(), 40u);
}

// The walk lists a folder some entries ahead of the one it indexes: every file still gets its one row
// when folders, each holding more entries than are listed ahead, come between them.
TEST_P(IndexWalk, EveryFileOfFoldersLongerThanTheListedWindowGetsItsRow) {
  std::set<std::string> expected;
  for (const std::string folder : {"", "a/", "a/deep/", "b/", "c/"}) {
    fs::create_directories(share_ + "/" + folder);
    for (int i = 0; i < 13; ++i) {
      const std::string name = folder + "f" + std::to_string(i) + (i % 3 == 0 ? ".jpg" : ".m3u");
      std::ofstream(share_ + "/" + name) << "#EXTM3U\n";
      expected.insert(name);
    }
    std::ofstream(share_ + "/" + folder + "notes.txt") << "no handler\n";
  }
  Walk();
  // The files are in the page cache, so the walk turned the readers' advice off in each folder; a
  // file indexed on its own later, maybe cold, must get it again.
  EXPECT_TRUE(ReadAdviceWanted());
  std::set<std::string> rows;
  for (const char* table : {"playlist", "photo"}) {
    std::istringstream in(orvo::test::QueryAll(OrvoDatabase::kMedia, std::string("select path from ") + table));
    for (std::string path; std::getline(in, path);) EXPECT_TRUE(rows.insert(path.substr(share_.size() + 1)).second) << path;
  }
  EXPECT_EQ(rows, expected);
}

INSTANTIATE_TEST_SUITE_P(Backends, IndexWalk, ::testing::ValuesIn(orvo::test::DatabaseBackends()));

}  // namespace
