// IndexPhoto's media row against ORVOPhotoIndexAdd's photo row, the renames and the album table, on both backends.
#include <utime.h>

#include <set>
#include <sstream>

#include "handlers/handlers.h"
#include "photo/photo_index.h"
#include "photo/photo_share.h"
#include "platform/photo_db.h"
#include "support/db_fixture.h"

namespace {

using orvo::test::QueryAll;

std::string MediaRow(const std::string& columns, const std::string& path) {
  return QueryAll(OrvoDatabase::kMedia, "select " + columns + " from photo where path = '" + path + "'");
}
std::string PhotoRow(const std::string& columns, const std::string& path) {
  return QueryAll(OrvoDatabase::kPhoto, "select " + columns + " from photo_image where path = '" + path + "'");
}
std::string Photo(const std::string& sql) { return QueryAll(OrvoDatabase::kPhoto, sql); }
std::string PhotoPaths() { return Photo("select path from photo_image order by path"); }

class PhotoIndex : public orvo::test::DatabaseTest {
 protected:
  // A sparse file of `size` bytes at `relative` under the scratch folder.
  std::string Sized(const std::string& relative, uintmax_t size) {
    std::string path = TempDir() + "/" + relative;
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream{path};
    fs::resize_file(path, size);
    return path;
  }
};

// Media row: header size, EXIF date as a time, else the mtime. Photo row: size clamped above 8000,
// the date's text, else the change time as "%F %T". Non-ASCII text is emptied on both.
TEST_P(PhotoIndex, MediaRowAndPhotoRowOfOneFile) {
  std::string path = Sized("Holiday/beach.day.jpg", 0);
  std::string command = "ffmpeg -v error -y -f lavfi -i color=c=red:s=8002x8000 -frames:v 1 '" + path + "' </dev/null"
                        " && exiftool -q -q -overwrite_original -Make='Caf\xc3\xa9' -Model='EOS 40D' -ExposureTime=1/160"
                        " -FNumber=7.1 -ISO=100 -ModifyDate='2000:01:01 00:00:00' -DateTimeOriginal='2001:02:03 04:05:06'"
                        " '" + path + "'";
  ASSERT_EQ(system(command.c_str()), 0) << command;
  ASSERT_EQ(IndexPhoto(path.c_str()), 0);
  ASSERT_EQ(ORVOPhotoIndexAdd(path.c_str(), 1), 0);
  struct tm taken = {};
  taken.tm_year = 101, taken.tm_mon = 1, taken.tm_mday = 3, taken.tm_hour = 4, taken.tm_min = 5, taken.tm_sec = 6;
  std::string size = std::to_string(fs::file_size(path));
  EXPECT_EQ(MediaRow("title, album, width, height, camera_make, camera_model, exposure_time, aperture, iso, mtime, "
                     "filesize", path),
            "beach.day|Holiday|8002|8000||EOS 40D|1/160 sec.|f/7.1|100|" + std::to_string(mktime(&taken)) + "|" + size);
  EXPECT_EQ(PhotoRow("name, title, album, width, height, make, model, exposure, aperture, iso, takendate, filesize", path),
            "beach.day.jpg|beach.day|Holiday|0|8000||EOS 40D|1/160 sec.|f/7.1|100|2001:02:03 04:05:06|" + size);

  std::string plain = Sized("plain/pic.png", 100);
  struct utimbuf times = {1234567890, 1234567890};
  ASSERT_EQ(utime(plain.c_str(), &times), 0);
  ASSERT_EQ(IndexPhoto(plain.c_str()), 0);
  ASSERT_EQ(ORVOPhotoIndexAdd(plain.c_str(), 1), 0);
  struct stat st = {};
  ASSERT_EQ(stat(plain.c_str(), &st), 0);
  char changed[32] = {};
  strftime(changed, sizeof changed, "%F %T", localtime_r(&st.st_ctime, &taken));
  EXPECT_EQ(MediaRow("mtime", plain), "1234567890");
  EXPECT_EQ(PhotoRow("takendate, change_time", plain), std::string(changed) + "|" + ctime(&st.st_ctime));
}

// Deliberate: the EXIF date goes through mktime as it is; only a result of 0 keeps the file's mtime. A date
// outside the 32-bit time range is one mktime refuses there (-1), not a wrapped number.
TEST_P(PhotoIndex, ExifDateConversionQuirks) {
  setenv("TZ", "UTC", 1);  // the other cases compute their expected times in the same zone
  tzset();
  struct Case { const char* date; const char* stored; } cases[] = {
      {"2024:13:45 25:61:61", "1739584921"},  // 2025-02-15 02:02:01
      {"1969:12:31 23:59:59", "-1"},
      {"1970:01:01 00:00:00", "1234567890"},
      {"2038:01:19 03:14:07", "2147483647"},  {"1901:12:13 20:45:52", "-2147483648"},
      {"2040:01:01 00:00:00", "-1"},          {"1900:01:01 00:00:00", "-1"},
      {"0000:00:00 00:00:00", "-1"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.date);
    std::string path = Sized("dates/pic.jpg", 0);
    std::string command = "ffmpeg -v error -y -f lavfi -i color=c=red:s=16x16 -frames:v 1 '" + path +
                          "' </dev/null && exiftool -q -q -overwrite_original '-DateTimeOriginal#=" + c.date + "' '" +
                          path + "'";
    ASSERT_EQ(system(command.c_str()), 0) << command;
    struct utimbuf times = {1234567890, 1234567890};
    ASSERT_EQ(utime(path.c_str(), &times), 0);
    ASSERT_EQ(IndexPhoto(path.c_str()), 0);
    EXPECT_EQ(MediaRow("mtime", path), c.stored);
  }
}

// 20 MiB and more, and empty files, stay out of the photo database only.
TEST_P(PhotoIndex, PhotoDatabaseSizeBoundIsExact) {
  std::string atLimit = Sized("big/limit.jpg", 20971520);
  std::string below = Sized("big/below.jpg", 20971519);
  std::string empty = Sized("big/empty.jpg", 0);
  EXPECT_EQ(ORVOPhotoIndexAdd(atLimit.c_str(), 1), -1);
  EXPECT_EQ(ORVOPhotoIndexAdd(empty.c_str(), 1), -1);
  EXPECT_EQ(ORVOPhotoIndexAdd(below.c_str(), 1), 0);
  EXPECT_EQ(PhotoPaths(), below);
  for (const std::string& path : {atLimit, below, empty}) EXPECT_EQ(IndexPhoto(path.c_str()), 0);
  EXPECT_EQ(MediaRow("filesize", atLimit) + "," + MediaRow("filesize", empty), "20971520,0");
}

// Hidden: media row only; thumbnail folder: neither; no '.': a bare media row; tif, psd: media only.
TEST_P(PhotoIndex, SkipsDifferPerPath) {
  std::string hidden = Sized("h/.hidden.jpg", 10), thumb = Sized("h/@eaDir/a.jpg", 10), noDot = Sized("h/pic", 50);
  for (const std::string& path : {hidden, thumb, noDot}) EXPECT_EQ(IndexPhoto(path.c_str()), 0) << path;
  EXPECT_EQ(MediaRow("title", hidden) + MediaRow("count(*)", thumb), ".hidden0");
  EXPECT_EQ(MediaRow("title, album, mtime, width", noDot), "pic|h|0|0");
  EXPECT_EQ(ORVOPhotoIndexAdd(hidden.c_str(), 1), -1);
  EXPECT_EQ(ORVOPhotoIndexAdd(thumb.c_str(), 1), -1);
  for (const char* name : {"u/a.tif", "u/b.psd"}) EXPECT_EQ(ORVOPhotoIndexUpdate(Sized(name, 10).c_str(), 5), -1);
  EXPECT_EQ(ORVOPhotoIndexUpdate((TempDir() + "/u").c_str(), 5), -1);
  std::string gif = Sized("u/c.GIF", 10);
  EXPECT_EQ(ORVOPhotoIndexUpdate(gif.c_str(), 5), 0);
  EXPECT_EQ(PhotoPaths(), gif);
}

// Removal only once the file is gone, on both paths.
TEST_P(PhotoIndex, RemoveOnlyWhenFileIsGone) {
  std::string path = Sized("r/gone.jpg", 10);
  ASSERT_EQ(IndexPhoto(path.c_str()), 0);
  ASSERT_EQ(ORVOPhotoIndexAdd(path.c_str(), 1), 0);
  EXPECT_EQ(RemovePhoto(path.c_str()), -1);
  EXPECT_EQ(ORVOPhotoIndexRemove(path.c_str()), -1);
  EXPECT_EQ(MediaRow("count(*)", path) + PhotoRow("count(*)", path), "11");
  fs::remove(path);
  EXPECT_EQ(RemovePhoto(path.c_str()), 0);
  EXPECT_EQ(ORVOPhotoIndexRemove(path.c_str()), 0);
  EXPECT_EQ(MediaRow("count(*)", path) + PhotoPaths(), "0");
}

// A folder rename moves exactly its own rows, whatever quotes or LIKE wildcards the names hold.
TEST_P(PhotoIndex, FolderRenameMovesOnlyItsOwnRows) {
  const std::string odd = "it's 100%_a\\b";
  std::string inside = Sized(odd + "/1.jpg", 10);
  std::string lookalike = Sized("it's 100XXa\\b/2.jpg", 10);
  std::string prefixSibling = Sized(odd + "2/3.jpg", 10);
  for (const std::string& path : {inside, lookalike, prefixSibling}) ASSERT_EQ(ORVOPhotoIndexAdd(path.c_str(), 1), 0);
  fs::rename(TempDir() + "/" + odd, TempDir() + "/moved");
  EXPECT_EQ(ORVOPhotoRenamePath((TempDir() + "/moved").c_str(), (TempDir() + "/" + odd).c_str(), 1), 0);
  EXPECT_EQ(PhotoPaths(), prefixSibling + "\n" + lookalike + "\n" + TempDir() + "/moved/1.jpg");
}

// A photo renamed onto a row replaces it; a video loses its row; an unknown photo is indexed.
TEST_P(PhotoIndex, FileRenameByKind) {
  std::string oldPhoto = Sized("f/old.jpg", 10), target = Sized("f/new.jpg", 20);
  ASSERT_EQ(ORVOPhotoIndexAdd(oldPhoto.c_str(), 1), 0);
  ASSERT_EQ(ORVOPhotoIndexAdd(target.c_str(), 1), 0);
  fs::rename(oldPhoto, target);
  EXPECT_EQ(ORVOPhotoRenamePath(target.c_str(), oldPhoto.c_str(), 0), 0);
  EXPECT_EQ(PhotoPaths(), target);

  std::string oldVideo = TempDir() + "/f/clip.avi";
  ASSERT_GE(PhotoDBExec(("insert into photo_video (path, name, title, album, filesize, mtime, updated) values ('" +
                         oldVideo + "', 'clip.avi', 'clip', 'f', 1, 1, 'true')").c_str()), 0);
  EXPECT_EQ(ORVOPhotoRenamePath((TempDir() + "/f/clip2.avi").c_str(), oldVideo.c_str(), 0), -1);
  EXPECT_EQ(Photo("select count(*) from photo_video"), "0");

  std::string fresh = Sized("f/fresh.png", 10);
  EXPECT_EQ(ORVOPhotoRenamePath(fresh.c_str(), (TempDir() + "/f/never.png").c_str(), 0), 0);
  EXPECT_EQ(PhotoRow("count(*)", fresh), "1");
  EXPECT_EQ(ORVOPhotoRenamePath((TempDir() + "/f/x.txt").c_str(), (TempDir() + "/f/y.txt").c_str(), 0), -1);
}

// Video rows move by plain prefix, companions included; a rename that matches nothing fails.
TEST_P(PhotoIndex, VideoTableRenameUsesPlainPrefix) {
  const std::string dir = "/volume1/photo/o'k 5%_x", quoted = "'/volume1/photo/o''k 5%_x";
  for (const char* name : {"/a.avi", "/a.avi.srt", "/b.avi"}) {
    ASSERT_GE(PhotoDBExec(("insert into video_desc (path, description) values (" + quoted + name + "', 'd')").c_str()), 0);
    ASSERT_GE(PhotoDBExec(("insert into video_comment (path, comment) values (" + quoted + name + "', 'c')").c_str()), 0);
  }
  ASSERT_GE(PhotoDBExec("insert into video_desc (path, description) values ('/volume1/photo/o''k 5XYx/a.avi', 'd')"), 0);
  EXPECT_EQ(ORVOVideoRenamePath(1, (dir + "/z.avi").c_str(), (dir + "/a.avi").c_str()), 0);
  EXPECT_EQ(ORVOVideoRenamePath(2, (dir + "/z.avi").c_str(), (dir + "/a.avi").c_str()), 0);
  EXPECT_EQ(Photo("select path from video_comment order by path"), dir + "/b.avi\n" + dir + "/z.avi\n" + dir + "/z.avi.srt");
  EXPECT_EQ(Photo("select path from video_desc where path like '%5XYx%'"), "/volume1/photo/o'k 5XYx/a.avi");
  EXPECT_EQ(ORVOVideoRenamePath(1, "/volume1/photo/n.avi", "/volume1/photo/none.avi"), -1);
}

// Every corpus picture, damaged too, reaches both databases, with clamped sizes and dates.
TEST_P(PhotoIndex, WholeCorpusThroughBothHandlers) {
  std::string folder = std::string(ORVO_CORPUS_DIR) + "/pictures";
  if (!fs::is_directory(folder)) GTEST_SKIP() << "corpus not present at " << ORVO_CORPUS_DIR;
  int files = 0;
  for (const auto& entry : fs::directory_iterator(folder)) {
    std::string path = entry.path().string();
    EXPECT_EQ(IndexPhoto(path.c_str()), 0) << path;
    EXPECT_EQ(ORVOPhotoIndexAdd(path.c_str(), 1), 0) << path;
    ++files;
  }
  EXPECT_EQ(QueryAll(OrvoDatabase::kMedia, "select count(*) from photo"), std::to_string(files));
  EXPECT_EQ(Photo("select count(*) from photo_image"), std::to_string(files));
  EXPECT_EQ(Photo("select count(*) from photo_image where width not between 0 and 8000 "
                  "or height not between 0 and 8000 or takendate = ''"), "0");
}

INSTANTIATE_TEST_SUITE_P(Backends, PhotoIndex, ::testing::ValuesIn(orvo::test::DatabaseBackends()));


// The album routines that work on the table alone (no photo root link).
const std::string kRoot = "/volume1/photo/";

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

// The next id is above the highest, not one past the number of rows.
TEST_P(PhotoShareTable, NewAlbumIdIsAboveTheHighestLeft) {
  for (const char* name : {"a", "a/x", "b"}) ASSERT_EQ(Add(name), 0) << name;
  ASSERT_EQ(Delete("a"), 0);
  ASSERT_EQ(Add("next"), 0);
  EXPECT_EQ(Photo("select shareid from photo_share where sharename = 'next'"), "4");
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

// A name's LIKE pattern matches its own rows only: runs of one, two and three quotes, backslashes and
// wildcards, each beside its lookalikes ("x''y" used to delete the sub-albums of "x'y" and keep its own);
// no name ends a statement.
TEST_P(PhotoShareTable, LikePatternOfOneAlbumNeverMatchesAnother) {
  const std::vector<std::string> names = {"x'y", "x''y", "x'''y", "x''", "x\\y", "x\\\\y", "x%y", "x_y", "xzy",
                                          "x'; drop table photo_share; --", "x"};
  std::set<std::string> expected;  // the table as it must be after each step
  auto check = [&](const std::string& step) {
    std::set<std::string> rows;
    std::istringstream in(Names());
    for (std::string line; std::getline(in, line);) rows.insert(line);
    EXPECT_EQ(rows, expected) << step;
  };
  for (const std::string& name : names) {
    ASSERT_EQ(Add(name) + Add(name + "/s"), 0) << name;
    expected.insert({name, name + "/s"});
  }
  char value[128] = {};
  EXPECT_EQ(ORVOPhotoShareGetFieldValue("x'; drop table photo_share; --/s", "is_subdir", value, sizeof value), 0);
  EXPECT_STREQ(value, "t");
  for (const std::string& name : names) {
    ASSERT_EQ(Rename("r" + name, name), 0) << name;
    expected.erase(name), expected.erase(name + "/s"), expected.insert({"r" + name, "r" + name + "/s"});
    check("renamed " + name);
  }
  for (const std::string& name : names) {
    ASSERT_EQ(ORVOPhotoShareUpdatedReset(("r" + name).c_str()), 0);
    EXPECT_EQ(Photo("select sharename from photo_share where updated = 'false'"), "r" + name + "/s");
    ASSERT_EQ(ORVOPhotoShareUnmarkedDelete(("r" + name).c_str()), 0);
    expected.erase("r" + name + "/s");
    check("swept below " + name);
  }
  for (const std::string& name : names) {
    ASSERT_EQ(Add("r" + name + "/s"), 0);
    expected.insert("r" + name + "/s");
  }
  // Deleted from the last on, so that each name goes while its lookalikes are still there.
  for (auto name = names.rbegin(); name != names.rend(); ++name) {
    ASSERT_EQ(Delete("r" + *name), 0) << *name;
    expected.erase("r" + *name), expected.erase("r" + *name + "/s");
    check("deleted " + *name);
  }
}

INSTANTIATE_TEST_SUITE_P(Backends, PhotoShareTable, ::testing::ValuesIn(orvo::test::DatabaseBackends()));

}  // namespace
