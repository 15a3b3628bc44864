// The photo database on every backend: both kinds of rows, sweeps, queries, path lists, renames.
#include "platform/photo_db.h"
#include "support/db_fixture.h"

namespace {

std::string Photo(const std::string& sql) { return orvo::test::QueryAll(OrvoDatabase::kPhoto, sql); }

int SavePicture(const std::string& path, int width = 640) {
  PhotoInfo info;
  memset(&info, 0, sizeof info);
  snprintf(info.path, sizeof info.path, "%s", path.c_str());
  std::string name = path.substr(path.rfind('/') + 1);
  snprintf(info.name, sizeof info.name, "%s", name.c_str());
  snprintf(info.title, sizeof info.title, "%s", name.substr(0, name.rfind('.')).c_str());
  snprintf(info.takenDate, sizeof info.takenDate, "2020:01:02 03:04:05");
  info.width = width;
  return PhotoInfoDBSave(&info, 1);
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

TEST_P(PhotoDb, SweepKeepsOneRowPerPictureAndDeletesUnmarkedRowsOfBothKinds) {
  std::string keptVideo = MakeFile("kept.avi", 300), goneVideo = MakeFile("gone.avi", 10);
  ASSERT_EQ(SavePicture("/p/kept.jpg"), 0);
  ASSERT_EQ(SavePicture("/p/gone.jpg"), 0);
  std::string id = Photo("select id from photo_image where path = '/p/kept.jpg'");
  ASSERT_EQ(ORVOIndexPhotoUpdateVideoStatus(keptVideo.c_str()), 0);
  ASSERT_EQ(ORVOIndexPhotoUpdateVideoStatus(goneVideo.c_str()), 0);
  orvo::test::LogCapture log;
  EXPECT_EQ(ORVOIndexPhotoUpdateVideoStatus((TempDir() + "/missing.avi").c_str()), -1);
  EXPECT_EQ(PhotoInfoDBSave(nullptr, 1), -1);

  ASSERT_EQ(ORVOPhotoInitAllRows(), 0);
  EXPECT_EQ(Photo("select count(*) from photo_image where updated"), "0");
  ASSERT_EQ(SavePicture("/p/kept.jpg", 800), 0);  // the upsert marks the row and keeps its id
  ASSERT_EQ(ORVOIndexPhotoUpdateVideoStatus(keptVideo.c_str()), 0);
  ASSERT_EQ(ORVOPhotoDeleteNoUpdateRows(), 0);
  EXPECT_EQ(Photo("select id, name, title, takendate, width, updated from photo_image"),
            id + "|kept.jpg|kept|2020:01:02 03:04:05|800|t");
  EXPECT_EQ(Photo("select path, name, title, filesize, updated from photo_video"), keptVideo + "|kept.avi|kept|300|t");
}

// The folder query: quote-escape, LIKE-escape, "/%"; selector 0 lists pictures and videos.
TEST_P(PhotoDb, PathsThatAreNotUtf8AreFoundRenamedAndRemovedByteForByte) {
  const std::string oldDir = TempDir() + "/Caf\xe9", newDir = TempDir() + "/\xff\xfe_new";
  ASSERT_EQ(mkdir(oldDir.c_str(), 0755), 0);
  const std::string video = MakeFile("Caf\xe9/clip\x80.mov", 5);
  for (const char* name : {"/a.jpg", "/b\x80.jpg", "/deeper/c.jpg"}) ASSERT_EQ(SavePicture(oldDir + name), 0);
  ASSERT_EQ(SavePicture(oldDir + "s/d.jpg"), 0);
  ASSERT_EQ(ORVOIndexPhotoUpdateVideoStatus(video.c_str()), 0);
  // The name columns stay UTF-8 even when the path is not.
  EXPECT_EQ(Photo("select name from photo_image where path like '%b\x80.jpg'"), "b\xc2\x80.jpg");
  char quoted[512], pattern[1024];
  ASSERT_GE(ORVODBEscapeString(quoted, oldDir.c_str(), oldDir.size()), 0);
  ASSERT_GE(ORVODBEscapeBackslash(pattern, sizeof pattern, quoted), 0);
  const std::string condition = std::string("path like '") + pattern + "/%'";
  PhotoDBHandle* page = PhotoInfoDBOpen(kPhotoRows, "*", condition.c_str(), nullptr, "path desc", 1, 1);
  ASSERT_NE(page, nullptr);
  ASSERT_EQ(page->rowCount, 1);
  ASSERT_EQ(ORVODBFetchRow(page->result, &page->row), 0);
  EXPECT_EQ(ORVODBFetchField(page->result, page->row, "path"), oldDir + "/clip\x80.mov");
  PhotoInfoDBClose(page);
  PhotoDBHandle* handle = PhotoInfoDBOpen(kPhotoRows, "path", condition.c_str(), nullptr, "path asc", 0, 0);
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(handle->rowCount, 4);
  PhotoPathNode* list = PhotoPathDBGet(handle);
  ASSERT_EQ(ORVOUpdatePhotoPath(list, newDir.c_str(), oldDir.c_str()), 0);
  FreePhotoPathList(list);
  PhotoInfoDBClose(handle);
  // A renamed row takes its album from its new path.
  EXPECT_EQ(Photo("select path, album from photo_image order by path"),
            oldDir + "s/d.jpg|\n" + newDir + "/a.jpg|\xc3\xbf\xc3\xbe_new\n" + newDir +
                "/b\x80.jpg|\xc3\xbf\xc3\xbe_new\n" + newDir + "/deeper/c.jpg|deeper");
  EXPECT_EQ(Photo("select path from photo_video"), newDir + "/clip\x80.mov");
  ASSERT_EQ(PhotoInfoDBDelete((newDir + "/b\x80.jpg").c_str()), 0);
  ASSERT_EQ(PhotoInfoDBDirDelete(newDir.c_str()), 0);
  EXPECT_EQ(Photo("select path from photo_image"), oldDir + "s/d.jpg");
  orvo::test::LogCapture log;
  EXPECT_EQ(PhotoInfoDBOpen(9, "*", nullptr, nullptr, nullptr, 0, 0), nullptr);
}

TEST_P(PhotoDb, RenameOntoAnExistingRowReplacesItAndFolderDeleteSparesNamesakes) {
  ASSERT_EQ(SavePicture("/x/P/old.jpg", 1), 0);
  for (const char* path : {"/x/P/new.jpg", "/x/P/s/b.jpg", "/x/P2/c.jpg", "/x/P"}) ASSERT_EQ(SavePicture(path), 0);
  PhotoPathNode node{const_cast<char*>("/x/P/old.jpg"), nullptr};
  ASSERT_EQ(ORVOUpdatePhotoPath(&node, "/x/P/new.jpg", "/x/P/old.jpg"), 0);
  EXPECT_EQ(Photo("select name, title, width from photo_image where path like '/x/P/n%'"), "new.jpg|new|1");
  ASSERT_EQ(PhotoInfoDBDirDelete("/x/P"), 0);
  EXPECT_EQ(Photo("select path from photo_image"), "/x/P2/c.jpg");
}

INSTANTIATE_TEST_SUITE_P(Backends, PhotoDb, ::testing::ValuesIn(orvo::test::DatabaseBackends()));

}  // namespace
