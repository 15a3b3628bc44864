// IndexPhoto's media row against ORVOPhotoIndexAdd's photo row, and the renames, on both backends.
#include <utime.h>

#include "handlers/handlers.h"
#include "photo/photo_index.h"
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

// Deliberate: the EXIF date goes through mktime as it is; only a result of 0 keeps the file's mtime.
TEST_P(PhotoIndex, ExifDateConversionQuirks) {
  const char* zone = getenv("TZ");
  std::string savedZone = zone ? zone : "";
  setenv("TZ", "UTC", 1);
  tzset();
  struct Case { const char* date; const char* stored; } cases[] = {
      {"2024:13:45 25:61:61", "1739584921"},  // 2025-02-15 02:02:01
      {"1969:12:31 23:59:59", "-1"},
      {"1970:01:01 00:00:00", "1234567890"},
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
  if (zone) setenv("TZ", savedZone.c_str(), 1); else unsetenv("TZ");
  tzset();
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

}  // namespace
