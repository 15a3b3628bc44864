#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>

#include "index/index.h"
#include "platform/orvodb.h"
#include "support/db_fixture.h"
#include "support/log_capture.h"

namespace {

namespace fs = std::filesystem;

TEST(RecycleBin, OnlyAtTheTopOfAShare) {
  EXPECT_EQ(IsInRecycleBin("/volume1/music/#recycle"), 1);
  EXPECT_EQ(IsInRecycleBin("/volume1/music/#recycle/a/b.mp3"), 1);
  EXPECT_EQ(IsInRecycleBin("/volume1/music/#recycle2"), 0);
  EXPECT_EQ(IsInRecycleBin("/volume1/music/#recyclebin/x"), 0);
  EXPECT_EQ(IsInRecycleBin("/volume1/music/a/#recycle"), 0);
  EXPECT_EQ(IsInRecycleBin("/volume1/#recycle"), 0);
  EXPECT_EQ(IsInRecycleBin("/volume1/music"), 0);
  EXPECT_EQ(IsInRecycleBin("/volume1/music/"), 0);
  EXPECT_EQ(IsInRecycleBin(nullptr), 0);
}

TEST(IndexArguments, BadArgumentsAreLoggedAndRefused) {
  orvo::test::LogCapture log;
  EXPECT_EQ(IndexFile(nullptr, 1), -1);
  EXPECT_EQ(IndexFile("/volume1/music/a.mp3", 3), -1);
  EXPECT_EQ(log.Count("index.cpp ("), 2);
  EXPECT_EQ(log.Count(") Bad parameter."), 2);
  log.Clear();
  EXPECT_EQ(IndexFolder(nullptr, 1, 1), 0);
  EXPECT_EQ(IndexFolder("/x", 4, 1), 0);
  EXPECT_EQ(log.Count("Bad parameter."), 2);
  log.Clear();
  EXPECT_EQ(IndexFolder(nullptr, 3, 2), 0);
  EXPECT_TRUE(log.Contains("index type must be ORVOINDEX_MEDIA"));
}

// A share laid out in /tmp/<name>, two components deep like /volume1/<share>,
// indexed into fresh media databases of each backend.
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

  void Dir(const std::string& relative) { fs::create_directories(share_ + "/" + relative); }

  // Paths of a media table, relative to the share ("." for the share itself).
  std::set<std::string> Rows(const char* table) {
    ORVODBFlush();
    std::set<std::string> rows;
    ORVODB* db = OrvoDBConnect(OrvoDatabase::kMedia);
    if (db == nullptr) return {"<no database>"};
    ORVODBResult* result = nullptr;
    const std::string sql = std::string("select path from ") + table;
    if (ORVODBExecute(db, sql.c_str(), &result) < 0) return {"<query failed>"};
    ORVODBRow row;
    while (ORVODBFetchRow(result, &row) == 0) {
      std::string path = ORVODBFetchField(result, row, "path");
      rows.insert(path == share_ ? "." : path.substr(share_.size() + 1));
    }
    ORVODBFreeResult(result);
    return rows;
  }

  std::string share_;
};

TEST_P(IndexWalk, DirectoryRowsSkipRecycleBinAndThumbnailFolders) {
  for (const char* d : {"a/#recycle/deep", "a/@eaDir/x", "#recycle/old", "b/c/@eaDir", ".hidden"})
    Dir(d);
  IndexFolder(share_.c_str(), kFolderAdd, kIndexMediaDb);
  EXPECT_EQ(Rows("directory"),
            (std::set<std::string>{".", "a", "a/#recycle", "a/#recycle/deep", "b", "b/c", ".hidden"}));
}

TEST_P(IndexWalk, TreeDeleteRemovesOnlyThatTree) {
  for (const char* d : {"a/x", "ab", "b", "c_/x", "cd/x"}) Dir(d);
  IndexFolder(share_.c_str(), kFolderAdd, kIndexMediaDb);
  IndexFolder((share_ + "/a").c_str(), kFolderDelete, kIndexMediaDb);
  // "ab" shares the prefix "a" but is not below it; "_" is a name, not a
  // pattern that would take "cd" along.
  IndexFolder((share_ + "/c_").c_str(), kFolderDelete, kIndexMediaDb);
  EXPECT_EQ(Rows("directory"), (std::set<std::string>{".", "ab", "b", "cd", "cd/x"}));
}

TEST_P(IndexWalk, DirectoryModeOnlyAddsItsRow) {
  Dir("a");
  const std::string a = share_ + "/a";
  EXPECT_EQ(IndexFile(a.c_str(), kIndexRemove), 0);
  EXPECT_TRUE(Rows("directory").empty());
  EXPECT_EQ(IndexFile(a.c_str(), kIndexAdd), 0);
  EXPECT_EQ(Rows("directory"), std::set<std::string>{"a"});
  EXPECT_EQ(IndexFile(a.c_str(), kIndexRemove), 0);
  EXPECT_EQ(Rows("directory"), std::set<std::string>{"a"});
}

TEST_P(IndexWalk, LinkLoopEndsTheWalk) {
  Dir("a/b");
  fs::create_directory_symlink(share_, share_ + "/a/b/up");
  fs::create_directory_symlink(share_ + "/a", share_ + "/a/self");
  fs::create_symlink(share_ + "/missing", share_ + "/dangling");
  IndexFolder(share_.c_str(), kFolderAdd, kIndexMediaDb);
  EXPECT_EQ(Rows("directory"), (std::set<std::string>{".", "a", "a/b"}));
}

// A child path cut short at the 4096-byte buffer can name its own parent;
// the walk must neither loop nor overrun.
TEST_P(IndexWalk, PathsAtTheBufferLimitEndTheWalk) {
  std::string path = share_;
  int fd = open(share_.c_str(), O_RDONLY | O_DIRECTORY);
  ASSERT_GE(fd, 0);
  while (path.size() < 4095) {
    const size_t room = 4095 - path.size() - 1;
    const std::string name(std::min<size_t>(room, 200), 'd');
    if (name.empty()) break;
    ASSERT_EQ(mkdirat(fd, name.c_str(), 0755), 0);
    const int next = openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY);
    close(fd);
    fd = next;
    ASSERT_GE(fd, 0);
    path += "/" + name;
  }
  ASSERT_EQ(path.size(), 4095u);
  ASSERT_EQ(mkdirat(fd, "below", 0755), 0);
  ASSERT_EQ(mkdirat(fd, "x.mp3", 0755), 0);
  close(fd);

  orvo::test::LogCapture log;
  IndexFolder(share_.c_str(), kFolderAdd, kIndexMediaDb);
  const auto rows = Rows("directory");
  EXPECT_TRUE(rows.count(path.substr(share_.size() + 1)));
  EXPECT_LT(rows.size(), 40u);
}

INSTANTIATE_TEST_SUITE_P(Backends, IndexWalk, ::testing::ValuesIn(orvo::test::DatabaseBackends()));

}  // namespace
