// The album routines that work on the table alone (no photo root link), on both backends.
#include "photo/photo_share.h"
#include "platform/photo_db.h"
#include "support/db_fixture.h"

using orvo::test::QueryAll;

namespace {

const std::string kRoot = "/volume1/photo/";

std::string Photo(const std::string& sql) { return QueryAll(OrvoDatabase::kPhoto, sql); }
std::string Shares() {
  return Photo("select shareid, sharename, public, is_subdir, updated from photo_share order by sharename");
}
std::string Names() { return Photo("select sharename from photo_share order by sharename"); }
int Add(const std::string& name) { return ORVOPhotoShareUpdate((kRoot + name).c_str(), 1); }
int Delete(const std::string& name) { return ORVOPhotoShareUpdate((kRoot + name).c_str(), 2); }
int Rename(const std::string& to, const std::string& from) {
  return ORVOPhotoShareRename((kRoot + to).c_str(), (kRoot + from).c_str());
}

class PhotoShareTable : public orvo::test::DatabaseTest {};

// A sub-album takes its album's flag and, if private, a copy of each access row (granted: asctime's).
TEST_P(PhotoShareTable, SubAlbumsInheritFlagAndAccessRights) {
  ASSERT_EQ(Add("private"), 0);
  ASSERT_EQ(Add("public"), 0);
  ASSERT_GE(PhotoDBExec("update photo_share set public = 'true' where sharename = 'public'"), 0);
  ASSERT_GE(PhotoDBExec("insert into photo_access_right values (1001, 1, 'x'), (1002, 1, 'x'), (1003, 2, 'x')"), 0);
  ASSERT_EQ(Add("private/sub"), 0);
  ASSERT_EQ(Add("public/sub"), 0);
  EXPECT_EQ(Shares(), "1|private|f|f|t\n3|private/sub|f|t|t\n2|public|t|f|t\n4|public/sub|t|t|t");
  EXPECT_EQ(Photo("select shareid, userid from photo_access_right order by shareid, userid"),
            "1|1001\n1|1002\n2|1003\n3|1001\n3|1002");
  std::string granted = Photo("select granted from photo_access_right where shareid = 3 and userid = 1001");
  EXPECT_TRUE(!granted.empty() && granted.back() == '\n') << granted;
  EXPECT_EQ(Add("orphan/sub"), -1);
}

// Level-2 folders are not albums: add, delete and rename pass them by.
TEST_P(PhotoShareTable, DeepFoldersAreIgnored) {
  EXPECT_EQ(Add("a/b/c"), 0);
  EXPECT_EQ(Names(), "");
  EXPECT_EQ(Rename("a/b/d", "a/b/c"), -1);
  ASSERT_EQ(Add("a"), 0);
  EXPECT_EQ(Delete("a/b/c"), 0);
  EXPECT_EQ(Names(), "a");
}

// Not a sibling that merely starts the same, wildcards or not; the next id is above the highest.
TEST_P(PhotoShareTable, DeleteTakesOnlyTheAlbumAndItsSubAlbums) {
  for (const char* name : {"trip", "trip/day1", "trip2", "trip2/day1", "a_b", "a_b/x", "axb", "axb/x", "50%", "50%/x", "500"})
    ASSERT_EQ(Add(name), 0) << name;
  for (const char* name : {"trip", "a_b", "50%"}) EXPECT_EQ(Delete(name), 0) << name;
  EXPECT_EQ(Names(), "500\naxb\naxb/x\ntrip2\ntrip2/day1");
  ASSERT_EQ(Add("next"), 0);
  EXPECT_EQ(Photo("select shareid from photo_share where sharename = 'next'"), "12");
}

// A rename carries the sub-albums; an album moved below another loses what was below it.
TEST_P(PhotoShareTable, RenameCarriesSubAlbums) {
  for (const char* name : {"old", "old/one", "old/two", "older", "older/x"}) ASSERT_EQ(Add(name), 0);
  EXPECT_EQ(Rename("new", "old"), 0);
  EXPECT_EQ(Names(), "new\nnew/one\nnew/two\nolder\nolder/x");
  EXPECT_EQ(Rename("older/y", "older/x"), 0);
  EXPECT_EQ(Rename("older/new", "new"), 0);
  EXPECT_EQ(Shares(), "4|older|f|f|t\n1|older/new|f|t|t\n5|older/y|f|t|t");
}

// Quotes, backslashes, '%' and '_' go through every statement as plain text.
TEST_P(PhotoShareTable, NamesCannotBreakStatements) {
  const std::string evil = "it's \\ 100%_'; drop table photo_share; --";
  ASSERT_EQ(Add(evil), 0);
  ASSERT_EQ(Add(evil + "/sub'"), 0);
  ASSERT_EQ(Add("it's \\ 100XX"), 0);
  EXPECT_EQ(Names(), evil + "\n" + evil + "/sub'\nit's \\ 100XX");
  char value[128] = {};
  EXPECT_EQ(ORVOPhotoShareGetFieldValue(evil.c_str(), "is_subdir", value, sizeof value), 0);
  EXPECT_STREQ(value, "f");
  EXPECT_EQ(Rename("re'named%", evil), 0);
  EXPECT_EQ(Names(), "it's \\ 100XX\nre'named%\nre'named%/sub'");
  EXPECT_EQ(ORVOPhotoShareUpdatedReset("re'named%"), 0);
  EXPECT_EQ(ORVOPhotoShareUnmarkedDelete("re'named%"), 0);
  EXPECT_EQ(Names(), "it's \\ 100XX\nre'named%");
  EXPECT_EQ(Delete("re'named%"), 0);
  EXPECT_EQ(Names(), "it's \\ 100XX");
}

INSTANTIATE_TEST_SUITE_P(Backends, PhotoShareTable, ::testing::ValuesIn(orvo::test::DatabaseBackends()));

}  // namespace
