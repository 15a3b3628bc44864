// The photo database on every backend: photo rows of both kinds, the
// updated marks of a sweep, path lists and prefix renames (with paths that
// are not UTF-8), queries through PhotoInfoDBOpen and changed-row counts.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/orvodb.h"
#include "platform/photo_db.h"
#include "support/db_fixture.h"
#include "support/log_capture.h"

namespace {

using orvo::test::QueryAll;

std::string Photo(const std::string& sql) { return QueryAll(OrvoDatabase::kPhoto, sql); }

PhotoInfo Picture(const std::string& path) {
  PhotoInfo info;
  memset(&info, 0, sizeof info);
  snprintf(info.path, sizeof info.path, "%s", path.c_str());
  std::string name = path.substr(path.rfind('/') + 1);
  snprintf(info.name, sizeof info.name, "%s", name.c_str());
  snprintf(info.title, sizeof info.title, "%s", name.substr(0, name.rfind('.')).c_str());
  snprintf(info.takenDate, sizeof info.takenDate, "2020:01:02 03:04:05");
  snprintf(info.changeTimeText, sizeof info.changeTimeText, "Thu Jan  2 03:04:05 2020\n");
  info.width = 640;
  info.height = 480;
  info.fileSize = 1234;
  return info;
}

std::vector<std::string> Paths(const PhotoPathNode* list) {
  std::vector<std::string> out;
  for (; list != nullptr; list = list->next) out.emplace_back(list->path);
  return out;
}

std::vector<std::string> OpenPaths(int table, const char* condition, const char* order = "path asc") {
  PhotoDBHandle* handle = PhotoInfoDBOpen(table, "path", condition, nullptr, order, 0, 0);
  if (handle == nullptr) return {"(null)"};
  PhotoPathNode* list = PhotoPathDBGet(handle);
  std::vector<std::string> out = Paths(list);
  FreePhotoPathList(list);
  PhotoInfoDBClose(handle);
  return out;
}

class PhotoDb : public orvo::test::DatabaseTest {
 protected:
  // A real file, for the video rows that are made from the file itself.
  std::string MakeFile(const std::string& name, size_t size) {
    std::string path = TempDir() + "/" + name;
    std::ofstream(path, std::ios::binary) << std::string(size, 'v');
    return path;
  }
};

TEST_P(PhotoDb, SavingAPictureTwiceKeepsOneRowWithItsId) {
  PhotoInfo info = Picture("/volume1/photo/trip/a.jpg");
  snprintf(info.make, sizeof info.make, "Maker");
  ASSERT_EQ(PhotoInfoDBSave(&info, 1), 0);
  std::string id = Photo("select id from photo_image");
  info.width = 800;
  ASSERT_EQ(PhotoInfoDBSave(&info, 5), 0);
  EXPECT_EQ(Photo("select id, name, title, make, takendate, change_time, width, height, filesize, updated"
                  " from photo_image"),
            id + "|a.jpg|a|Maker|2020:01:02 03:04:05|Thu Jan  2 03:04:05 2020\n|800|480|1234|t");
  orvo::test::LogCapture log;
  EXPECT_EQ(PhotoInfoDBSave(nullptr, 1), -1);
}

TEST_P(PhotoDb, RowsLeftUnmarkedBySweepAreDeletedOfBothKinds) {
  std::string keptVideo = MakeFile("kept.avi", 300);
  std::string goneVideo = MakeFile("gone.avi", 10);
  for (const char* path : {"/p/kept.jpg", "/p/gone.jpg"}) {
    PhotoInfo info = Picture(path);
    ASSERT_EQ(PhotoInfoDBSave(&info, 1), 0);
  }
  ASSERT_EQ(ORVOIndexPhotoUpdateVideoStatus(keptVideo.c_str()), 0);
  ASSERT_EQ(ORVOIndexPhotoUpdateVideoStatus(goneVideo.c_str()), 0);
  EXPECT_EQ(ORVOIndexPhotoUpdateVideoStatus((TempDir() + "/missing.avi").c_str()), -1);

  ASSERT_EQ(ORVOPhotoInitAllRows(), 0);
  EXPECT_EQ(Photo("select count(*) from photo_image where updated"), "0");
  PhotoInfo kept = Picture("/p/kept.jpg");
  ASSERT_EQ(PhotoInfoDBSave(&kept, 5), 0);
  ASSERT_EQ(ORVOIndexPhotoUpdateVideoStatus(keptVideo.c_str()), 0);
  ASSERT_EQ(ORVOPhotoDeleteNoUpdateRows(), 0);
  EXPECT_EQ(Photo("select path, updated from photo_image"), "/p/kept.jpg|t");
  EXPECT_EQ(Photo("select path, name, title, filesize, updated from photo_video"),
            keptVideo + "|kept.avi|kept|300|t");
}

TEST_P(PhotoDb, SelectorZeroListsPicturesAndVideosTogether) {
  std::string video = MakeFile("clip.mov", 5);
  for (const char* path : {"/p/b.jpg", "/p/a.jpg", "/p/sub/c.png"}) {
    PhotoInfo info = Picture(path);
    ASSERT_EQ(PhotoInfoDBSave(&info, 1), 0);
  }
  ASSERT_EQ(ORVOIndexPhotoUpdateVideoStatus(video.c_str()), 0);
  EXPECT_EQ(OpenPaths(kPhotoRows, "path like '/p/%' and path not like '/p/%/%'"),
            (std::vector<std::string>{"/p/a.jpg", "/p/b.jpg"}));
  EXPECT_EQ(OpenPaths(kPhotoRows, nullptr).size(), 4u);

  PhotoDBHandle* handle = PhotoInfoDBOpen(kPhotoRows, "*", "path like '/p/%'", nullptr,
                                          "path desc", 1, 1);
  ASSERT_NE(handle, nullptr);
  ASSERT_EQ(handle->rowCount, 1);
  ASSERT_EQ(ORVODBFetchRow(handle->result, &handle->row), 0);
  EXPECT_STREQ(ORVODBFetchField(handle->result, handle->row, "path"), "/p/b.jpg");
  EXPECT_STREQ(ORVODBFetchField(handle->result, handle->row, "updated"), "t");
  PhotoInfoDBClose(handle);

  orvo::test::LogCapture log;
  EXPECT_EQ(PhotoInfoDBOpen(9, "*", nullptr, nullptr, nullptr, 0, 0), nullptr);
  EXPECT_EQ(PhotoInfoDBOpen(kPhotoShare, "*", "1 = 1; delete from photo_image", nullptr, nullptr, 0, 0),
            nullptr);
  EXPECT_EQ(PhotoInfoDBOpen(kPhotoShare, "nosuchcolumn", nullptr, nullptr, nullptr, 0, 0), nullptr);
  EXPECT_EQ(Photo("select count(*) from photo_image"), "3");
}

TEST_P(PhotoDb, PathsThatAreNotUtf8AreFoundRenamedAndRemovedByteForByte) {
  const std::string oldDir = "/volume1/photo/Caf\xe9";
  const std::string newDir = "/volume1/photo/\xff\xfe_new";
  for (const char* name : {"/a.jpg", "/b\x80.jpg", "/deeper/c.jpg"}) {
    PhotoInfo info = Picture(oldDir + name);
    ASSERT_EQ(PhotoInfoDBSave(&info, 1), 0);
  }
  PhotoInfo other = Picture("/volume1/photo/Caf\xe9s/d.jpg");
  ASSERT_EQ(PhotoInfoDBSave(&other, 1), 0);
  // The name columns stay UTF-8 even when the path is not; a renamed row
  // takes its names from its new path.
  EXPECT_EQ(Photo("select name from photo_image where path like '%b\x80.jpg'"), "b\xc2\x80.jpg");

  // As the photo code asks: quote-escape, then LIKE-escape, then "/%".
  char quoted[64], pattern[256];
  ASSERT_GE(ORVODBEscapeString(quoted, oldDir.c_str(), oldDir.size()), 0);
  ASSERT_GE(ORVODBEscapeBackslash(pattern, sizeof pattern, quoted), 0);
  std::string condition = std::string("path like '") + pattern + "/%'";
  PhotoDBHandle* handle = PhotoInfoDBOpen(kPhotoRows, "path", condition.c_str(), nullptr, nullptr, 0, 0);
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(handle->rowCount, 3);
  PhotoPathNode* list = PhotoPathDBGet(handle);
  ASSERT_EQ(ORVOUpdatePhotoPath(list, newDir.c_str(), oldDir.c_str()), 0);
  FreePhotoPathList(list);
  PhotoInfoDBClose(handle);

  EXPECT_EQ(Photo("select path, album from photo_image order by path"),
            "/volume1/photo/Caf\xe9s/d.jpg|\n" + newDir + "/a.jpg|\xc3\xbf\xc3\xbe_new\n" +
                newDir + "/b\x80.jpg|\xc3\xbf\xc3\xbe_new\n" + newDir + "/deeper/c.jpg|deeper");
  ASSERT_EQ(PhotoInfoDBDelete((newDir + "/b\x80.jpg").c_str()), 0);
  ASSERT_EQ(PhotoInfoDBDirDelete(newDir.c_str()), 0);
  EXPECT_EQ(Photo("select path from photo_image"), "/volume1/photo/Caf\xe9s/d.jpg");
}

TEST_P(PhotoDb, RenameOntoAnExistingRowReplacesIt) {
  for (const char* path : {"/p/old.jpg", "/p/new.jpg"}) {
    PhotoInfo info = Picture(path);
    info.width = path[3] == 'o' ? 1 : 2;
    ASSERT_EQ(PhotoInfoDBSave(&info, 1), 0);
  }
  PhotoPathNode node{const_cast<char*>("/p/old.jpg"), nullptr};
  ASSERT_EQ(ORVOUpdatePhotoPath(&node, "/p/new.jpg", "/p/old.jpg"), 0);
  EXPECT_EQ(Photo("select path, name, title, width from photo_image"), "/p/new.jpg|new.jpg|new|1");
}

TEST_P(PhotoDb, FolderDeleteSparesNamesakeFolders) {
  for (const char* path : {"/x/P/a.jpg", "/x/P/s/b.jpg", "/x/P2/c.jpg", "/x/P"}) {
    PhotoInfo info = Picture(path);
    ASSERT_EQ(PhotoInfoDBSave(&info, 1), 0);
  }
  ASSERT_EQ(PhotoInfoDBDirDelete("/x/P"), 0);
  EXPECT_EQ(Photo("select path from photo_image"), "/x/P2/c.jpg");
}

TEST_P(PhotoDb, ExecCountsChangedRowsIncludingNone) {
  EXPECT_EQ(PhotoDBExec("Insert into photo_share values(1, 'album', '', '', 'false', 0, '', 'true', 'false', '1');"), 1);
  EXPECT_EQ(PhotoDBExec("Insert into photo_share values(2, 'album/sub', '', '', 'false', 0, '', 'true', 'true', '1');"), 1);
  EXPECT_EQ(PhotoDBExec("Update photo_share set sharename = 'x', is_subdir = 'f' where sharename = 'nothing'"), 0);
  EXPECT_EQ(PhotoDBExec("Update photo_share set updated = '0'"), 2);
  EXPECT_EQ(PhotoDBExec("Insert into photo_access_right Values (1001, 2, 'Sat Nov 21 03:40:06 2026\n')"), 1);
  EXPECT_EQ(Photo("select userid, shareid, granted from photo_access_right"),
            "1001|2|Sat Nov 21 03:40:06 2026\n");
  EXPECT_EQ(PhotoDBExec("Update video_comment set path = 'b' where path = 'a'"), 0);
  orvo::test::LogCapture log;
  EXPECT_EQ(PhotoDBExec("Insert into photo_share values(3, 'album', '', '', 'false', 0, '', 'true', 'false', '1')"), -1);
  EXPECT_EQ(PhotoDBExec("Update no_such_table set x = 1"), -1);
  // A failed statement leaves the group's other writes in place.
  ASSERT_EQ(ORVODBFlush(), 0);
  EXPECT_EQ(QueryElsewhere(OrvoDatabase::kPhoto, "select count(*) from photo_share"), "2");
}

TEST_P(PhotoDb, VideoApplicationRowsRenameThroughRawStatements) {
  ORVODB* db = OrvoDBConnect(OrvoDatabase::kPhoto);
  ASSERT_NE(db, nullptr);
  ASSERT_EQ(ORVODBExecute(db, "insert into video_desc values ('/p/a.avi', 'desc')", nullptr), 1);
  ASSERT_EQ(ORVODBExecute(db, "insert into video_comment (path, comment) values ('/p/a.avi', 'c1'),"
                              " ('/p/a.avi.srt', 'c2')", nullptr), 2);
  EXPECT_EQ(OpenPaths(kPhotoVideoComment, "path like '/p/a.avi%'"),
            (std::vector<std::string>{"/p/a.avi", "/p/a.avi.srt"}));
  EXPECT_EQ(ORVODBExecute(db, "Update video_desc set path = '/p/b.avi' where path = '/p/a.avi'", nullptr), 1);
  EXPECT_EQ(Photo("select path, description from video_desc"), "/p/b.avi|desc");
  EXPECT_EQ(Photo("select id from video_comment order by id"), "1\n2");
}

TEST_P(PhotoDb, VacuumCommitsFirst) {
  PhotoInfo info = Picture("/p/v.jpg");
  ASSERT_EQ(PhotoInfoDBSave(&info, 1), 0);
  ASSERT_EQ(PhotoDBVacuum(), 0);
  EXPECT_EQ(QueryElsewhere(OrvoDatabase::kPhoto, "select count(*) from photo_image"), "1");
}

INSTANTIATE_TEST_SUITE_P(Backends, PhotoDb, ::testing::ValuesIn(orvo::test::DatabaseBackends()));

}  // namespace
