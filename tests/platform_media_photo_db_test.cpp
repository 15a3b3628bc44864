// The media and photo database routines on every backend, and tag text into UTF-8 fields.
#include <fcntl.h>

#include <cmath>
#include <tuple>

#include "platform/media_db.h"
#include "platform/photo_db.h"
#include "platform/text_encoding.h"
#include "support/db_fixture.h"

namespace {

using orvo::test::MediaRecord;

std::string Media(const std::string& sql) { return orvo::test::QueryAll(OrvoDatabase::kMedia, sql); }

class MediaDb : public orvo::test::DatabaseTest {};

TEST_P(MediaDb, ResavingAFileKeepsItsIdAndTakesTheNewValues) {
  MediaInfo info = MediaRecord("/volume1/music/a.mp3");
  info.duration = 1.5f;
  info.filesize = 5000000000LL;
  ASSERT_EQ(MediaInfoDBSave(kMediaMusic, &info), 0);
  std::string id = Media("select id from music");
  // Tag text reaches the table as UTF-8, by the field's own UTF-16 flag.
  const unsigned char be[] = {0xFE, 0xFF, 0, 'Z', 0x4E, 0x2D, 0, 0};
  memcpy(info.artist, be, sizeof be);
  info.artist_is_utf16 = 1;
  snprintf(info.title, sizeof info.title, "Caf\xe9");
  info.track = 4;
  ASSERT_EQ(MediaInfoDBSave(kMediaMusic, &info), 0);
  EXPECT_EQ(Media("select id, title, artist, track, duration, filesize from music"),
            id + "|Caf\xc3\xa9|Z\xe4\xb8\xad|4|1.5|5000000000");
}

TEST_P(MediaDb, EachTypeGoesToItsOwnTableAndOthersAreRefused) {
  MediaInfo info = MediaRecord("/volume1/x/a");
  for (int type = 0; type < 4; ++type) ASSERT_EQ(MediaInfoDBSave(type, &info), 0);
  for (const char* table : {"music", "video", "photo", "playlist"})
    EXPECT_EQ(Media(std::string("select path from ") + table), info.path);
  orvo::test::LogCapture log;
  EXPECT_EQ(MediaInfoDBSave(4, &info), -1);
  EXPECT_EQ(MediaInfoDBSave(kMediaTree, &info), -1);
  EXPECT_EQ(MediaInfoDBSave(kMediaMusic, nullptr), -1);
  EXPECT_EQ(MediaInfoDBDelete(4, info.path), -1);
  EXPECT_EQ(MediaInfoDBDelete(kMediaVideo, info.path), 0);
  EXPECT_EQ(Media("select count(*) from video"), "0");
  EXPECT_EQ(Media("select count(*) from music"), "1");
}

TEST_P(MediaDb, FolderDeleteTakesTheFolderAndBelowButNotItsNamesakes) {
  for (const char* path : {"/x/P", "/x/P/a.mp3", "/x/P/sub/b.mp3", "/x/P2/c.mp3", "/x/Pa", "/x/P%/d.mp3",
                           "/x/P_/e.mp3"}) {
    MediaInfo info = MediaRecord(path);
    ASSERT_EQ(MediaInfoDBSave(kMediaMusic, &info), 0);
    ASSERT_EQ(MediaInfoDBSave(kMediaVideo, &info), 0);
  }
  ASSERT_EQ(ORVODBExecute(OrvoDBConnect(OrvoDatabase::kMedia),
                          "insert into directory (path, mtime) values ('/x/P', 1), ('/x/P/sub', 2), ('/x/P2', 3)",
                          nullptr),
            3);
  ASSERT_EQ(MediaInfoDBDelete(kMediaTree, "/x/P"), 0);
  const std::string left = "/x/P%/d.mp3\n/x/P2/c.mp3\n/x/P_/e.mp3\n/x/Pa";
  EXPECT_EQ(Media("select path from music order by path"), left);
  EXPECT_EQ(Media("select path from video order by path"), left);
  EXPECT_EQ(Media("select path from directory"), "/x/P2");
  // A wildcard in the folder's own name matches only itself.
  ASSERT_EQ(MediaInfoDBDelete(kMediaTree, "/x/P_/"), 0);
  ASSERT_EQ(MediaInfoDBDelete(kMediaTree, "/x/P%"), 0);
  EXPECT_EQ(Media("select path from music order by path"), "/x/P2/c.mp3\n/x/Pa");
}

TEST_P(MediaDb, TruncateTakesOnlyTheFiveMediaTables) {
  MediaInfo info = MediaRecord("/volume1/v/a.avi");
  ASSERT_EQ(MediaInfoDBSave(kMediaVideo, &info), 0);
  ASSERT_EQ(MediaInfoDBSave(kMediaMusic, &info), 0);
  orvo::test::LogCapture log;
  for (const char* bad : {"schema_version", "video; delete from music", "Video", "", "music "})
    EXPECT_EQ(ORVOTruncateTable(bad), -1) << bad;
  EXPECT_EQ(ORVOTruncateTable(nullptr), -1);
  EXPECT_EQ(Media("select count(*) from video"), "1");
  EXPECT_EQ(Media("select count(*) from schema_version"), "1");
  EXPECT_EQ(ORVOTruncateTable("video"), 0);
  EXPECT_EQ(Media("select count(*) from video"), "0");
  EXPECT_EQ(Media("select count(*) from music"), "1");
}

TEST_P(MediaDb, FolderRowsCarryTheFoldersOwnMtime) {
  std::string dir = TempDir() + "/share";
  ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
  for (time_t mtime : {1234567890, 1300000000}) {
    struct timespec times[2] = {{1000000000, 0}, {mtime, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, dir.c_str(), times, 0), 0);
    ASSERT_EQ(MediaInfoDBDirSave(dir.c_str()), 0);
    EXPECT_EQ(ORVOIndexModifyTimeGet(dir.c_str()), mtime);
    EXPECT_EQ(Media("select count(*), max(mtime) from directory"), "1|" + std::to_string(mtime));
  }
  orvo::test::LogCapture log;
  EXPECT_EQ(MediaInfoDBDirSave((dir + "/missing").c_str()), -1);
  EXPECT_EQ(ORVOIndexModifyTimeGet((dir + "/missing").c_str()), 0);
}

INSTANTIATE_TEST_SUITE_P(Backends, MediaDb, ::testing::ValuesIn(orvo::test::DatabaseBackends()));

TEST(MediaInfoValid, RepairsWhatCannotBeStored) {
  MediaInfo info = MediaRecord("/a.mp3");
  EXPECT_EQ(MediaInfoValid(&info), 0);
  memset(info.title, 'x', sizeof info.title);  // no terminator
  info.bitrate = -5;
  info.filesize = -1;
  info.duration = NAN;
  EXPECT_EQ(MediaInfoValid(&info), 1);
  EXPECT_EQ(strlen(info.title), sizeof info.title - 1);
  EXPECT_TRUE(info.bitrate == 0 && info.filesize == 0 && info.duration == 0.0f);
  EXPECT_EQ(MediaInfoValid(nullptr), -1);
}

// Tag text into UTF-8 fields, never a byte past the field or half a character.
TEST(TextField, ConvertedToUtf8WithinTheFieldWithoutSplittingACharacter) {
  const std::tuple<std::string, bool, size_t, std::string> cases[] = {  // text, UTF-16, room, result
      {std::string("\xFF\xFE" "A\0\xE9\0\0\0junk", 12), true, 64, "A\xc3\xa9"},  // little-endian
      {std::string("\xFE\xFF\0A\0\xE9\0\0", 8), true, 64, "A\xc3\xa9"},          // big-endian
      {std::string("\xFF\xFE\x3D\xD8\x00\xDE", 6), true, 64, "\xf0\x9f\x98\x80"},  // surrogate pair
      {std::string("\xFF\xFE\x00\xDE" "a\0", 6), true, 64, "\xef\xbf\xbd" "a"},    // lone surrogate
      {std::string("\xFF\xFE" "A\0B", 5), true, 64, "A"},                         // odd trailing byte
      {"Caf\xc3\xa9 \xe4\xb8\xad \xf0\x9f\x98\x80", false, 64, "Caf\xc3\xa9 \xe4\xb8\xad \xf0\x9f\x98\x80"},
      {"Caf\xe9", false, 64, "Caf\xc3\xa9"},                                     // Latin-1
      {"\xc0\xaf", false, 64, "\xc3\x80\xc2\xaf"},                               // overlong: not UTF-8
      {"\xed\xa0\x80", false, 64, "\xc3\xad\xc2\xa0\xc2\x80"},                   // encoded surrogate
      {std::string("ab\0\xff", 4), false, 64, "ab"},                             // ends at its NUL
      {"ab\xe4\xb8\xad\xe4\xb8\xad", false, 6, "ab\xe4\xb8\xad"},
      {"abcd\xe9", false, 6, "abcd"},  // Latin-1 grows to two bytes
      {"abc\xe9", false, 6, "abc\xc3\xa9"},
      {"x", false, 1, ""},
  };
  for (const auto& [in, utf16, room, want] : cases) {
    SCOPED_TRACE(in);
    std::string out(room + 8, '#');  // guard bytes after the field
    size_t n = orvo::ToUtf8Field(in.data(), in.size(), utf16, out.data(), room);
    ASSERT_LT(n, room);
    EXPECT_EQ(out[n], '\0');
    EXPECT_EQ(out.substr(room), std::string(8, '#')) << "wrote past the field";
    EXPECT_EQ(out.substr(0, n), want);
  }
  char none = 'z';
  EXPECT_EQ(orvo::ToUtf8Field("abc", 3, false, &none, 0), 0u);
  EXPECT_EQ(none, 'z');
}

// Tag text into a record field: UTF-8 was cut mid-character (and then read as Latin-1); Latin-1 keeps its bytes.
TEST(TextField, TagCopyCutsUtf8BetweenCharactersAndOtherTextAtTheWidth) {
  const std::tuple<std::string, size_t, std::string> cases[] = {  // text, field size, copy
      {"ab\xe4\xb8\xad\xe4\xb8\xad", 6, "ab\xe4\xb8\xad"},
      {"abcd\xe9xyz", 6, "abcd\xe9"},  // converted when saved, as before
      {std::string("ab\0cd", 5), 6, "ab"},
      {"", 4, ""},
  };
  for (const auto& [text, size, want] : cases) {
    std::string field(size + 4, '#');
    size_t n = orvo::CopyTextField(field.data(), size, text);
    EXPECT_EQ(field.substr(0, n), want) << text;
    EXPECT_EQ(field.substr(n, 1) + field.substr(size), std::string(1, '\0') + "####") << text;
  }
}

// The photo database on every backend: both kinds of rows, sweeps, queries, path lists, renames.
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
