// The playlist handler: name, folder and size only; its remover says 0 even when the database fails.
#include "formats_testutil.h"
#include "platform/orvodb.h"

using namespace formats_test;

namespace {

TEST(PlaylistRecord, NameFolderAndSizeOnly) {
  TempDir dir;
  std::string path = dir.File("music/Party Mix.m3u");
  std::ofstream(path) << "#EXTM3U\nsong.mp3\n";
  MediaInfo m = Filled(FillPlaylistRecord, path);
  EXPECT_EQ(std::string(m.title) + "|" + m.album + "|" + m.artist, "Party Mix|music|");
  EXPECT_EQ(m.filesize, 17);
  EXPECT_EQ(m.mtime, 0);  // playlists carry no modification time
  EXPECT_EQ(m.duration, 0.0f);
}

TEST(PlaylistRemover, ExistingFileRefusedGoneFileAlwaysSucceeds) {
  TempDir dir;
  std::string path = dir.File("music/list.wpl");
  std::ofstream(path) << "<smil/>";
  orvo::test::LogCapture log;
  EXPECT_EQ(RemovePlaylist(path.c_str()), -1);
  EXPECT_TRUE(log.Contains("File exists. Skip remove it from database."));
  fs::remove(path);
  // A media database that cannot open: logged in the playlist's own wording, and still 0.
  const char* saved = getenv("ORVO_MEDIA_DB");
  std::string keep = saved != nullptr ? saved : "", blocker = dir.File("blocker");  // a file where a folder would go
  std::ofstream(blocker) << "x";
  ORVODBCloseAll();
  setenv("ORVO_MEDIA_DB", ("sqlite:" + blocker + "/media.db").c_str(), 1);
  EXPECT_EQ(RemovePlaylist(path.c_str()), 0);
  ORVODBCloseAll();
  saved != nullptr ? setenv("ORVO_MEDIA_DB", keep.c_str(), 1) : unsetenv("ORVO_MEDIA_DB");
  EXPECT_TRUE(log.Contains("playlist.cpp"));
  EXPECT_TRUE(log.Contains("Failed to remove " + path + " from database."));
}

}  // namespace
