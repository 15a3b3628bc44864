// A file of every audio, video and playlist extension lands in its handler's table, with its values.
#include <fcntl.h>
#include <sys/stat.h>

#include <map>
#include <set>

#include "formats_testutil.h"
#include "mp3_test_bytes.h"
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

  ASSERT_TRUE(AppendQueueLine("A:" + kFolder) && SignalDaemon() && WaitForHups(2));
  EXPECT_EQ(Names("music"), music);
  EXPECT_EQ(Names("video"), video);  // f.mkv has no handler
  EXPECT_EQ(Names("playlist"), (std::set<std::string>{"Party Mix.m3u", "list.wpl"}));
  for (const char* table : {"music", "video"}) {
    for (const auto& row : QuerySqlite(kMediaDbFile, std::string("select path, mtime from ") + table))
      EXPECT_EQ(std::stol(row.at(1)), mtimes[row.at(0)]) << row.at(0);
  }
  // The VCD parser's unit, not the generic probe's figure: .dat went to its own handler.
  EXPECT_EQ(QuerySqlite(kMediaDbFile, "select video_bitrate from video where path like '%f.dat'"), (Rows{{"2875000"}}));
  // A gone FLAC file is removed by the generic audio remover.
  fs::remove(kFolder + "/f.flac");
  ASSERT_TRUE(AppendQueueLine("d:" + kFolder + "/f.flac") && SignalDaemon() && WaitForHups(3));
  EXPECT_EQ(Names("music").count("f.flac"), 0u);
}

// "a:" on an MP3 makes its music row with its tags; "d:" removes it only once the file is gone.
TEST_F(FormatsSandbox, Mp3AddedFileBecomesItsRowAndGoesOnlyOnceDeleted) {
  StartIdle();
  auto run = [](const std::string& line, int hups) {
    return AppendQueueLine(line) && SignalDaemon() && WaitForHups(hups);
  };
  const std::string folder = "/volume1/music/Road Trip", song = folder + "/01 Opening.mp3";
  fs::create_directories(folder);
  std::ofstream(song, std::ios::binary) << Id3v2(4, Frame24("TIT2", std::string("\x01\xFF\xFEO\0k\0", 7)) + Frame24("TPE1", Text("Caf\xE9")) +
                                                        Frame24("TCON", Text("(17)")) + Frame24("TRCK", Text("1/9")))
                                        << XingStream(500, 40);
  const std::string columns = "select path, title, artist, album, genre, track, bitrate, frequency, channels, "
                              "round(duration, 2) from music";
  EXPECT_TRUE(run("a:" + song, 2));
  // UTF-16 and Latin-1 text stored as UTF-8; 500 frames of 1152 samples at 44100 Hz.
  EXPECT_EQ(QuerySqlite(kMediaDbFile, columns),
            (Rows{{song, "Ok", "Caf\xC3\xA9", "Road Trip", "Rock", "1", "128000", "44100", "1", "13.06"}}));
  EXPECT_TRUE(run("d:" + song, 3));
  EXPECT_GE(SandboxLogCount("File exists. Skip remove it from database."), 1);
  EXPECT_EQ(QuerySqlite(kMediaDbFile, "select count(*) from music"), (Rows{{"1"}}));
  fs::remove(song);
  EXPECT_TRUE(run("d:" + song, 4));
  EXPECT_EQ(QuerySqlite(kMediaDbFile, "select count(*) from music"), (Rows{{"0"}}));
}

}  // namespace
