// The album table on both database backends, for the routines that work on
// a given table state without the photo root link: folder levels, new ids,
// adding and deleting albums and sub-albums, inherited flags and access
// rights, renames, and names that try to break a statement.

#include <gtest/gtest.h>

#include <string>

#include "photo/photo_share.h"
#include "platform/photo_db.h"
#include "support/db_fixture.h"
#include "support/log_capture.h"

using orvo::test::QueryAll;

namespace {

const std::string kRoot = "/volume1/photo/";

std::string Sql(const std::string& text) {
  std::string out;
  for (char c : text) {
    out += c;
    if (c == '\'') out += '\'';
  }
  return out;
}

std::string Shares() {
  return QueryAll(OrvoDatabase::kPhoto,
                  "select shareid, sharename, public, is_subdir, updated from photo_share order by sharename");
}

std::string Names() {
  return QueryAll(OrvoDatabase::kPhoto, "select sharename from photo_share order by sharename");
}

std::string RightsOf(const std::string& shareName) {
  return QueryAll(OrvoDatabase::kPhoto,
                  "select r.userid from photo_access_right r join photo_share s on r.shareid = s.shareid "
                  "where s.sharename = '" + Sql(shareName) + "' order by r.userid");
}

int Add(const std::string& shareName) { return ORVOPhotoShareUpdate((kRoot + shareName).c_str(), 1); }
int Delete(const std::string& shareName) { return ORVOPhotoShareUpdate((kRoot + shareName).c_str(), 2); }

class PhotoShareTable : public orvo::test::DatabaseTest {};

// The share name always starts 15 characters in, whatever the volume's name.
TEST(PhotoShareLevel, CountsSlashesAfterTheFixedPrefix) {
  EXPECT_EQ(ORVOPhotoShareDirLevel("/volume1/photo/a"), 0);
  EXPECT_EQ(ORVOPhotoShareDirLevel("/volume1/photo/a/b"), 1);
  EXPECT_EQ(ORVOPhotoShareDirLevel("/volume1/photo/a/b/c"), 2);
  EXPECT_EQ(ORVOPhotoShareDirLevel("/volume1/photo/a/b/"), 2);
  // On /volume10 the prefix cut lands one character early: "/a" has a slash.
  EXPECT_EQ(ORVOPhotoShareDirLevel("/volume10/photo/a"), 1);
  orvo::test::LogCapture log;
  EXPECT_EQ(ORVOPhotoShareDirLevel(""), 2);
  EXPECT_EQ(ORVOPhotoShareDirLevel(nullptr), 2);
  EXPECT_EQ(log.Count("Bad parameter."), 2);
}

// Ids: 1 on an empty table, then one above the highest, not the count.
TEST_P(PhotoShareTable, NewAlbumIdsFollowTheHighest) {
  EXPECT_EQ(ORVOPhotoShareNewIdGet(), 1);
  ASSERT_EQ(Add("first"), 0);
  EXPECT_EQ(QueryAll(OrvoDatabase::kPhoto, "select shareid from photo_share"), "1");
  ASSERT_GE(PhotoDBExec("update photo_share set shareid = 41"), 0);
  ASSERT_EQ(Add("second"), 0);
  EXPECT_EQ(QueryAll(OrvoDatabase::kPhoto, "select shareid from photo_share where sharename = 'second'"), "42");
}

// Without albumdefpublic an album is private; a sub-album takes its
// album's flag, and for a private album a copy of each access row.
TEST_P(PhotoShareTable, SubAlbumsInheritFlagAndAccessRights) {
  ASSERT_EQ(Add("private"), 0);
  ASSERT_EQ(Add("public"), 0);
  ASSERT_GE(PhotoDBExec("update photo_share set public = 'true' where sharename = 'public'"), 0);
  for (const char* user : {"1001", "1002"}) {
    ASSERT_GE(PhotoDBExec((std::string("insert into photo_access_right values (") + user +
                           ", (select shareid from photo_share where sharename = 'private'), 'x')").c_str()), 0);
  }
  ASSERT_GE(PhotoDBExec("insert into photo_access_right values (1003, (select shareid from photo_share "
                        "where sharename = 'public'), 'x')"), 0);

  ASSERT_EQ(Add("private/sub"), 0);
  ASSERT_EQ(Add("public/sub"), 0);
  EXPECT_EQ(Shares(), "1|private|f|f|t\n3|private/sub|f|t|t\n2|public|t|f|t\n4|public/sub|t|t|t");
  EXPECT_EQ(RightsOf("private/sub"), "1001\n1002");
  EXPECT_EQ(RightsOf("public/sub"), "");
  // The grant time is asctime's text, newline included.
  std::string granted = QueryAll(OrvoDatabase::kPhoto, "select granted from photo_access_right where shareid = 3 and userid = 1001");
  ASSERT_FALSE(granted.empty());
  EXPECT_EQ(granted.back(), '\n');
}

// A sub-album whose album has no row cannot inherit: the add reports it.
TEST_P(PhotoShareTable, SubAlbumOfUnknownAlbumFails) {
  orvo::test::LogCapture log;
  EXPECT_EQ(Add("orphan/sub"), -1);
  EXPECT_TRUE(log.Contains("ORVOPhotoShareSubDirUpdatePrivilege Failed."));
}

// Level-2 folders are not albums: add, delete and rename leave them alone.
TEST_P(PhotoShareTable, DeepFoldersAreIgnored) {
  EXPECT_EQ(Add("a/b/c"), 0);
  EXPECT_EQ(Names(), "");
  EXPECT_EQ(ORVOPhotoShareRename((kRoot + "a/b/d").c_str(), (kRoot + "a/b/c").c_str()), -1);
  ASSERT_EQ(Add("a"), 0);
  EXPECT_EQ(Delete("a/b/c"), 0);
  EXPECT_EQ(Names(), "a");
}

// Deleting an album takes its sub-albums, not a sibling whose name merely
// starts the same, even when the names carry LIKE wildcards.
TEST_P(PhotoShareTable, DeleteTakesOnlyTheAlbumAndItsSubAlbums) {
  for (const char* name : {"trip", "trip/day1", "trip2", "trip2/day1", "a_b", "a_b/x", "axb", "axb/x", "50%", "50%/x", "500"}) {
    ASSERT_EQ(Add(name), 0) << name;
  }
  EXPECT_EQ(Delete("trip"), 0);
  EXPECT_EQ(Delete("a_b"), 0);
  EXPECT_EQ(Delete("50%"), 0);
  EXPECT_EQ(Names(), "500\naxb\naxb/x\ntrip2\ntrip2/day1");
}

// An album rename carries its sub-albums along; a sub-album moved up to
// album level is marked as such.
TEST_P(PhotoShareTable, RenameCarriesSubAlbums) {
  for (const char* name : {"old", "old/one", "old/two", "older", "older/x"}) ASSERT_EQ(Add(name), 0);
  EXPECT_EQ(ORVOPhotoShareRename((kRoot + "new").c_str(), (kRoot + "old").c_str()), 0);
  EXPECT_EQ(Names(), "new\nnew/one\nnew/two\nolder\nolder/x");

  EXPECT_EQ(ORVOPhotoShareRename((kRoot + "older/y").c_str(), (kRoot + "older/x").c_str()), 0);
  EXPECT_EQ(QueryAll(OrvoDatabase::kPhoto, "select is_subdir from photo_share where sharename = 'older/y'"), "t");
  // An album that becomes a sub-album loses what was below it.
  EXPECT_EQ(ORVOPhotoShareRename((kRoot + "older/new").c_str(), (kRoot + "new").c_str()), 0);
  EXPECT_EQ(Shares(), "4|older|f|f|t\n1|older/new|f|t|t\n5|older/y|f|t|t");
}

// Quotes, backslashes, '%' and '_' in album names go through every
// statement as plain text.
TEST_P(PhotoShareTable, NamesCannotBreakStatements) {
  const std::string evil = "it's \\ 100%_'; drop table photo_share; --";
  ASSERT_EQ(Add(evil), 0);
  ASSERT_EQ(Add(evil + "/sub'"), 0);
  ASSERT_EQ(Add("it's \\ 100XX"), 0);
  EXPECT_EQ(Names(), evil + "\n" + evil + "/sub'\nit's \\ 100XX");

  char value[128] = {};
  EXPECT_EQ(ORVOPhotoShareGetFieldValue(evil.c_str(), "is_subdir", value, sizeof value), 0);
  EXPECT_STREQ(value, "f");

  EXPECT_EQ(ORVOPhotoShareRename((kRoot + "re'named%").c_str(), (kRoot + evil).c_str()), 0);
  EXPECT_EQ(Names(), "it's \\ 100XX\nre'named%\nre'named%/sub'");
  EXPECT_EQ(ORVOPhotoShareUpdatedReset("re'named%"), 0);
  EXPECT_EQ(ORVOPhotoShareUnmarkedDelete("re'named%"), 0);
  EXPECT_EQ(Names(), "it's \\ 100XX\nre'named%");
  EXPECT_EQ(Delete("re'named%"), 0);
  EXPECT_EQ(Names(), "it's \\ 100XX");
}

INSTANTIATE_TEST_SUITE_P(Backends, PhotoShareTable, ::testing::ValuesIn(orvo::test::DatabaseBackends()));

}  // namespace
