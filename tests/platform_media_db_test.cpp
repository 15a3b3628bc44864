// The media database on every backend: upserts, deletes by path and by
// folder, the truncate whitelist, and text stored as UTF-8.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "platform/media_db.h"
#include "platform/orvodb.h"
#include "platform/text_encoding.h"
#include "support/db_fixture.h"
#include "support/log_capture.h"

namespace {

using orvo::test::QueryAll;

MediaInfo Record(const std::string& path, const char* title = "") {
  MediaInfo info;
  memset(&info, 0, sizeof info);
  snprintf(info.path, sizeof info.path, "%s", path.c_str());
  snprintf(info.title, sizeof info.title, "%s", title);
  return info;
}

std::string Media(const std::string& sql) { return QueryAll(OrvoDatabase::kMedia, sql); }

class MediaDb : public orvo::test::DatabaseTest {};

TEST_P(MediaDb, ResavingAFileKeepsItsIdAndTakesTheNewValues) {
  MediaInfo info = Record("/volume1/music/a.mp3", "First");
  info.track = 3;
  info.duration = 1.5f;
  info.filesize = 5000000000LL;
  ASSERT_EQ(MediaInfoDBSave(kMediaMusic, &info), 0);
  std::string id = Media("select id from music where path = '/volume1/music/a.mp3'");
  ASSERT_NE(id, "");
  snprintf(info.title, sizeof info.title, "Second");
  info.track = 4;
  ASSERT_EQ(MediaInfoDBSave(kMediaMusic, &info), 0);
  EXPECT_EQ(Media("select id, title, track, duration, filesize from music"),
            id + "|Second|4|1.5|5000000000");
}

TEST_P(MediaDb, EachTypeGoesToItsOwnTableAndOthersAreRefused) {
  const char* tables[] = {"music", "video", "photo", "playlist"};
  for (int type = 0; type < 4; ++type) {
    MediaInfo info = Record(std::string("/volume1/x/") + tables[type]);
    ASSERT_EQ(MediaInfoDBSave(type, &info), 0);
  }
  for (int type = 0; type < 4; ++type) {
    EXPECT_EQ(Media(std::string("select path from ") + tables[type]),
              std::string("/volume1/x/") + tables[type]);
  }
  MediaInfo info = Record("/volume1/x/four");
  orvo::test::LogCapture log;
  EXPECT_EQ(MediaInfoDBSave(4, &info), -1);
  EXPECT_EQ(MediaInfoDBSave(kMediaTree, &info), -1);
  EXPECT_EQ(MediaInfoDBSave(kMediaMusic, nullptr), -1);
  EXPECT_EQ(MediaInfoDBDelete(4, "/volume1/x/music"), -1);
  EXPECT_TRUE(log.Contains("Bad parameter."));

  EXPECT_EQ(MediaInfoDBDelete(kMediaVideo, "/volume1/x/video"), 0);
  EXPECT_EQ(Media("select count(*) from video"), "0");
  EXPECT_EQ(Media("select count(*) from music"), "1");
}

TEST_P(MediaDb, FolderDeleteTakesTheFolderAndBelowButNotItsNamesakes) {
  for (const char* path : {"/x/P", "/x/P/a.mp3", "/x/P/sub/b.mp3", "/x/P2/c.mp3", "/x/Pa",
                           "/x/P%/d.mp3", "/x/P_/e.mp3"}) {
    MediaInfo info = Record(path);
    ASSERT_EQ(MediaInfoDBSave(kMediaMusic, &info), 0);
    ASSERT_EQ(MediaInfoDBSave(kMediaVideo, &info), 0);
  }
  ASSERT_EQ(ORVODBExecute(OrvoDBConnect(OrvoDatabase::kMedia),
                          "insert into directory (path, mtime) values ('/x/P', 1), ('/x/P/sub', 2),"
                          " ('/x/P2', 3)",
                          nullptr),
            3);
  ASSERT_EQ(MediaInfoDBDelete(kMediaTree, "/x/P"), 0);
  const std::string left = "/x/P%/d.mp3\n/x/P2/c.mp3\n/x/P_/e.mp3\n/x/Pa";
  EXPECT_EQ(Media("select path from music order by path"), left);
  EXPECT_EQ(Media("select path from video order by path"), left);
  EXPECT_EQ(Media("select path from directory order by path"), "/x/P2");

  // A wildcard in the folder's own name matches only itself.
  ASSERT_EQ(MediaInfoDBDelete(kMediaTree, "/x/P_/"), 0);
  ASSERT_EQ(MediaInfoDBDelete(kMediaTree, "/x/P%"), 0);
  EXPECT_EQ(Media("select path from music order by path"), "/x/P2/c.mp3\n/x/Pa");
}

TEST_P(MediaDb, TruncateTakesOnlyTheFiveMediaTables) {
  MediaInfo info = Record("/volume1/v/a.avi");
  ASSERT_EQ(MediaInfoDBSave(kMediaVideo, &info), 0);
  ASSERT_EQ(MediaInfoDBSave(kMediaMusic, &info), 0);
  orvo::test::LogCapture log;
  for (const char* bad : {"schema_version", "video; delete from music", "Video", "", "music "}) {
    EXPECT_EQ(ORVOTruncateTable(bad), -1) << bad;
  }
  EXPECT_EQ(ORVOTruncateTable(nullptr), -1);
  EXPECT_EQ(Media("select count(*) from video"), "1");
  EXPECT_EQ(Media("select count(*) from music"), "1");
  EXPECT_EQ(Media("select count(*) from schema_version"), "1");
  EXPECT_EQ(ORVOTruncateTable("video"), 0);
  EXPECT_EQ(Media("select count(*) from video"), "0");
  EXPECT_EQ(Media("select count(*) from music"), "1");
}

TEST_P(MediaDb, TagTextIsStoredAsUtf8WithinTheFieldWidth) {
  MediaInfo info = Record("/volume1/music/t.mp3");
  const unsigned char le[] = {0xFF, 0xFE, 'H', 0, 0xE9, 0, 0x3D, 0xD8, 0x3B, 0xDE, 0, 0};
  const unsigned char be[] = {0xFE, 0xFF, 0, 'Z', 0x4E, 0x2D, 0, 0};
  memcpy(info.title, le, sizeof le);
  info.title_is_utf16 = 1;
  memcpy(info.artist, be, sizeof be);
  info.artist_is_utf16 = 1;
  snprintf(info.album, sizeof info.album, "Caf\xe9");  // Latin-1
  snprintf(info.genre, sizeof info.genre, "Caf\xc3\xa9");  // already UTF-8
  // 254 bytes of Latin-1 'e acute' would be 508 bytes of UTF-8: cut at 254.
  memset(info.camera_make, 0xE9, sizeof info.camera_make - 1);
  ASSERT_EQ(MediaInfoDBSave(kMediaMusic, &info), 0);
  EXPECT_EQ(Media("select title, artist, album, genre from music"),
            "H\xc3\xa9\xf0\x9f\x98\xbb|Z\xe4\xb8\xad|Caf\xc3\xa9|Caf\xc3\xa9");
  std::string make = Media("select camera_make from music");
  EXPECT_EQ(make.size(), 98u);  // 49 whole characters fit in 99 bytes
  EXPECT_TRUE(orvo::IsValidUtf8(make));
}

TEST_P(MediaDb, PathsThatAreNotUtf8ComeBackByteForByte) {
  const std::string folder = "/volume1/music/Caf\xe9 \xff\xfe";
  MediaInfo info = Record(folder + "/song\x80.mp3");
  ASSERT_EQ(MediaInfoDBSave(kMediaMusic, &info), 0);
  EXPECT_EQ(Media("select path from music"), folder + "/song\x80.mp3");
  EXPECT_EQ(Media("select count(*) from music where path like '%\xe9 \xff\xfe/song_.mp3'"), "1");
  ASSERT_EQ(MediaInfoDBDelete(kMediaTree, folder.c_str()), 0);
  EXPECT_EQ(Media("select count(*) from music"), "0");
}

TEST_P(MediaDb, FolderRowsCarryTheFoldersOwnMtime) {
  std::string dir = TempDir() + "/share";
  ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
  struct timespec times[2] = {{1000000000, 0}, {1234567890, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, dir.c_str(), times, 0), 0);
  ASSERT_EQ(MediaInfoDBDirSave(dir.c_str()), 0);
  EXPECT_EQ(ORVOIndexModifyTimeGet(dir.c_str()), 1234567890);
  EXPECT_EQ(Media("select mtime from directory where path = '" + dir + "'"), "1234567890");
  times[1].tv_sec = 1300000000;
  ASSERT_EQ(utimensat(AT_FDCWD, dir.c_str(), times, 0), 0);
  ASSERT_EQ(MediaInfoDBDirSave(dir.c_str()), 0);
  EXPECT_EQ(Media("select count(*), max(mtime) from directory"), "1|1300000000");
  orvo::test::LogCapture log;
  EXPECT_EQ(MediaInfoDBDirSave((dir + "/missing").c_str()), -1);
  EXPECT_EQ(ORVOIndexModifyTimeGet((dir + "/missing").c_str()), 0);
}

TEST_P(MediaDb, VacuumCommitsPendingWritesFirst) {
  MediaInfo info = Record("/volume1/music/v.mp3");
  ASSERT_EQ(MediaInfoDBSave(kMediaMusic, &info), 0);
  ASSERT_EQ(MediaDBVacuum(), 0);
  EXPECT_EQ(QueryElsewhere(OrvoDatabase::kMedia, "select count(*) from music"), "1");
}

INSTANTIATE_TEST_SUITE_P(Backends, MediaDb, ::testing::ValuesIn(orvo::test::DatabaseBackends()));

TEST(MediaInfoValid, RepairsWhatCannotBeStored) {
  MediaInfo info;
  memset(&info, 0, sizeof info);
  snprintf(info.path, sizeof info.path, "/a.mp3");
  EXPECT_EQ(MediaInfoValid(&info), 0);

  memset(info.title, 'x', sizeof info.title);  // no terminator
  info.bitrate = -5;
  info.filesize = -1;
  info.duration = NAN;
  EXPECT_EQ(MediaInfoValid(&info), 1);
  EXPECT_EQ(strlen(info.title), sizeof info.title - 1);
  EXPECT_EQ(info.bitrate, 0);
  EXPECT_EQ(info.filesize, 0);
  EXPECT_EQ(info.duration, 0.0f);
  info.duration = -INFINITY;
  EXPECT_EQ(MediaInfoValid(&info), 1);
  EXPECT_EQ(info.duration, 0.0f);
  EXPECT_EQ(MediaInfoValid(nullptr), -1);
}

}  // namespace
