// Indexing through the daemon: every extension into its handler's table, MP3s, and the photo share.
#include <fcntl.h>
#include <sys/stat.h>

#include <map>
#include <set>

#include "formats_testutil.h"
#include "mp3_test_bytes.h"
#include "photo/photo_index.h"
#include "photo/photo_share.h"
#include "platform/orvodb.h"
#include "support/db_fixture.h"
#include "support/sandbox.h"

namespace {

using namespace formats_test;
using namespace mp3test;
using namespace orvo::test;
using Rows = std::vector<std::vector<std::string>>;

const std::string kFolder = "/volume1/music/all";

std::set<std::string> Names(const char* table) {
  std::set<std::string> names;
  for (const auto& row : QuerySqlite(kMediaDbFile, std::string("select path from ") + table))
    names.insert(fs::path(row.at(0)).filename().string());
  return names;
}

using FormatsSandbox = DaemonSandboxTest;

TEST_F(FormatsSandbox, EveryExtensionLandsInItsTable) {
  StartIdle();
  const std::string sine = "-f lavfi -i sine=sample_rate=44100:duration=2 ";
  TempDir tmp;
  fs::create_directories(kFolder);
  ASSERT_TRUE(Ffmpeg(sine + "-ac 2 -c:a pcm_s16le " + tmp.File("a.wav")));
  ASSERT_TRUE(Ffmpeg(sine + "-c:a aac " + tmp.File("a.m4a")));
  ASSERT_TRUE(Ffmpeg(sine + "-c:a flac " + tmp.File("a.flac")));
  ASSERT_TRUE(Ffmpeg(sine + "-c:a pcm_s16be " + tmp.File("a.aiff")));
  ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc=duration=2:size=352x240:rate=30000/1001 " + sine + "-target ntsc-vcd " +
                     tmp.File("a.mpg")));
  const std::pair<const char*, std::vector<const char*>> sources[] = {
      {"a.wav", {"mp1", "mp2", "mpa", "wma", "wav", "raw", "ogg", "ac3", "ram", "ra"}},
      {"a.m4a", {"m4a", "aac", "m4p"}}, {"a.flac", {"flac"}}, {"a.aiff", {"aiff", "aif"}},
      {"a.mpg", {"avi", "mpg", "mpeg", "dat", "asf", "wmv", "vob", "mov", "rm", "rmvb", "mp4", "divx", "xvid", "flv",
                 "mkv"}}};
  std::set<std::string> music, video;
  for (const auto& [source, extensions] : sources) {
    for (const char* ext : extensions) {
      fs::copy_file(tmp.File(source), kFolder + "/f." + ext);
      if (std::string(ext) != "mkv") (source == sources[4].first ? video : music).insert(std::string("f.") + ext);
    }
  }
  std::ofstream(kFolder + "/f.mp3", std::ios::binary) << TaggedMp3("t");
  music.insert("f.mp3");
  std::ofstream(kFolder + "/Party Mix.m3u") << "f.wav\n";
  std::ofstream(kFolder + "/list.wpl") << "<smil/>\n";
  // Every file gets its own modification time, which its row must carry.
  std::map<std::string, long> mtimes;
  long stamp = 1000000000;
  for (const auto& entry : fs::directory_iterator(kFolder)) {
    const timespec times[2] = {{stamp, 0}, {stamp, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, entry.path().c_str(), times, 0), 0);
    mtimes[entry.path().string()] = stamp;
    stamp += 86400;
  }

  ASSERT_TRUE(RunLines({"A:" + kFolder}));
  EXPECT_EQ(Names("music"), music);
  EXPECT_EQ(Names("video"), video);  // f.mkv has no handler
  EXPECT_EQ(Names("playlist"), (std::set<std::string>{"Party Mix.m3u", "list.wpl"}));
  for (const char* table : {"music", "video"}) {
    for (const auto& row : QuerySqlite(kMediaDbFile, std::string("select path, mtime from ") + table))
      EXPECT_EQ(std::stol(row.at(1)), mtimes[row.at(0)]) << row.at(0);
  }
  // The VCD parser's unit, not the generic probe's figure: .dat went to its own handler.
  EXPECT_EQ(QuerySqlite(kMediaDbFile, "select video_bitrate from video where path like '%f.dat'"), (Rows{{"2875000"}}));
}

// The values the daemon stores, on each backend: DatabaseTest points ORVO_MEDIA_DB and ORVO_PHOTO_DB at a
// fresh pair, which the daemon started here inherits.
class StoredValuesInSandbox : public orvo::test::SandboxDatabaseTest {
 protected:
  static std::string Row(const char* table, const std::string& columns, const std::string& path) {
    return orvo::test::QueryAll(OrvoDatabase::kMedia, "select " + columns + " from " + table + " where path = '" + path + "'");
  }
};

// Long UTF-8 tags were cut mid-character and stored as Latin-1 mojibake; ASF's WM/Year and 0-based WM/Track
// were dropped; FLV text data ended the stream loop before the real streams; a VCD whose audio packet held
// only a rejected MPEG-2.5 header stored that header's fields.
TEST_P(StoredValuesInSandbox, TagsStreamsAndAudioFieldsAsTheOldLibrariesGaveThem) {
  std::string japanese;  // 104 characters of three bytes: 84 fit a 255-byte field
  for (int i = 0; i < 26; ++i) japanese += "日本語歌";
  const std::string fitted = japanese.substr(0, 84 * 3);
  const std::string music = "/volume1/music/v", video = "/volume1/video/v", sine = "-f lavfi -i sine=duration=1 ";
  fs::create_directories(music);
  fs::create_directories(video);
  ASSERT_TRUE(Ffmpeg(sine + "-c:a wmav2 -metadata WM/Year=1999 -metadata WM/Track=4 " + music + "/old.wma"));
  ASSERT_TRUE(Ffmpeg(sine + "-c:a flac -metadata title=" + japanese + " " + music + "/long.flac"));
  ASSERT_TRUE(Ffmpeg(sine + "-c:a pcm_s16le -metadata title=" + japanese + " " + music + "/long.wav"));
  ASSERT_TRUE(Ffmpeg(sine + "-c:a aac -metadata title=" + japanese + " " + music + "/long.m4a"));
  std::ofstream(music + "/long.mp3", std::ios::binary) << Id3v2(4, Frame24("TIT2", "\x03" + japanese)) << XingStream(50, 40);
  std::ofstream(video + "/s.srt") << "1\n00:00:00,000 --> 00:00:00,500\nhello\n";
  ASSERT_TRUE(Ffmpeg("-i " + video + "/s.srt -f lavfi -i testsrc=duration=1:size=64x48:rate=5 " + sine +
                     "-map 0 -map 1 -map 2 -c:s text -c:v flv1 -c:a mp3 -f flv " + video + "/text.flv"));
  std::string vcd("\x55\0\0\1\xb3\x16\0\xf0\x14\x02\xce\x20\0\0\0\1\xc0\0\0\0\xff\xe3\x14\xc0", 24);
  std::ofstream(video + "/mpeg25.dat", std::ios::binary) << vcd << std::string(2000, '\0');

  ASSERT_GT(pid_ = StartOnQueue({"A:" + music, "A:" + video}), 0);
  EXPECT_EQ(Row("music", "year, track", music + "/old.wma"), "1999|5");
  for (const char* name : {"/long.flac", "/long.wav", "/long.mp3", "/long.m4a"}) {
    EXPECT_EQ(Row("music", "title", music + name), fitted) << name;
  }
  EXPECT_EQ(Row("video", "width, height, frequency, channels", video + "/text.flv"), "64|48|44100|1");
  EXPECT_EQ(SandboxLogCount("Invalid stream type."), 0);
  EXPECT_EQ(Row("video", "width, bitrate, frequency, channels", video + "/mpeg25.dat"), "352|0|0|0");
}

INSTANTIATE_TEST_SUITE_P(Backends, StoredValuesInSandbox, ::testing::ValuesIn(orvo::test::DatabaseBackends()));

const std::string kShare = "/volume1/photo";

void Picture(const std::string& relative) { ASSERT_TRUE(WriteJpeg(kShare + "/" + relative)) << relative; }

// The photo database file as the daemon left it, "a|b" lines.
std::string PhotoRows(const std::string& sql) {
  std::string out;
  for (const auto& row : QuerySqlite(kPhotoDbFile, sql)) {
    if (!out.empty()) out += "\n";
    for (size_t i = 0; i < row.size(); ++i) out += (i > 0 ? "|" : "") + row[i];
  }
  return out;
}
std::string PhotoPaths() { return PhotoRows("select path from photo_image order by path"); }
std::string Albums() { return PhotoRows("select sharename, public from photo_share order by sharename"); }

// R:photo adds new pictures (only they go for thumbnails), drops vanished ones, skips #recycle, @eaDir,
// names without '.', a link up, and hidden or level-2 albums; new albums follow albumdefpublic (any
// case), sub-albums their album. Then N, U, d, D and A keep both tables in step.
using PhotoShareInSandbox = DaemonSandboxTest;

TEST_F(PhotoShareInSandbox, DaemonReindexAndRenameThroughQueue) {
  for (const char* name : {"Trip/day1/a.jpg", "Trip/b.jpg", "Trip/gone.jpg", "Trip/noext", "Trip/@eaDir/t.jpg",
                           "#recycle/r.jpg"})
    Picture(name);
  for (const char* name : {"Other", "Trip/day1/deep", "@eaDir", ".hidden", "q'x%_\\"}) fs::create_directories(kShare + "/" + name);
  fs::create_directory_symlink("..", kShare + "/Trip/day1/up");
  for (const char* album : {"/Trip", "/gone", "/Trip/gone"}) ASSERT_EQ(ORVOPhotoShareUpdate((kShare + album).c_str(), 1), 0);
  for (const char* known : {"/Trip/b.jpg", "/Trip/gone.jpg"}) ASSERT_EQ(ORVOPhotoIndexAdd((kShare + known).c_str(), 1), 0);
  fs::remove(kShare + "/Trip/gone.jpg");
  ORVODBCloseAll();
  std::ofstream("/etc/orvoinfo.conf") << "albumdefpublic=YES\n";
  ASSERT_GT(pid_ = StartOnQueue({"R:photo"}), 0);
  EXPECT_EQ(PhotoPaths(), kShare + "/Trip/b.jpg\n" + kShare + "/Trip/day1/a.jpg");
  EXPECT_EQ(Albums(), "Other|1\nTrip|0\nTrip/day1|0\nq'x%_\\|1");
  EXPECT_EQ(ReadFile("/var/spool/orvo_thumb_queue"), "3:" + kShare + "/Trip/day1/a.jpg\n");

  fs::rename(kShare + "/Trip", kShare + "/Voyage");
  ASSERT_TRUE(RunLines({"N:" + kShare + "/Voyage:" + kShare + "/Trip"}));
  EXPECT_EQ(PhotoPaths(), kShare + "/Voyage/b.jpg\n" + kShare + "/Voyage/day1/a.jpg");
  EXPECT_EQ(Albums(), "Other|1\nVoyage|0\nVoyage/day1|0\nq'x%_\\|1");

  Picture("Voyage/c.jpg");
  ASSERT_TRUE(RunLines({"U:photo"}));
  EXPECT_EQ(PhotoPaths(), kShare + "/Voyage/b.jpg\n" + kShare + "/Voyage/c.jpg\n" + kShare + "/Voyage/day1/a.jpg");
  fs::remove(kShare + "/Voyage/b.jpg");
  fs::remove_all(kShare + "/Voyage/day1");
  Picture("Other/o.jpg");
  ASSERT_TRUE(RunLines({"d:" + kShare + "/Voyage/b.jpg", "D:" + kShare + "/Voyage/day1", "A:" + kShare + "/Other"}));
  EXPECT_EQ(PhotoPaths(), kShare + "/Other/o.jpg\n" + kShare + "/Voyage/c.jpg");
}

}  // namespace
