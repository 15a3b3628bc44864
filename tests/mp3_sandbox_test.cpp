// Through the daemon, "a:" on an MP3 makes its music row; "d:" removes it once the file is gone.
#include "mp3_test_bytes.h"
#include "support/sandbox.h"

namespace {

using namespace orvo::test;
using namespace mp3test;
using Rows = std::vector<std::vector<std::string>>;

using Mp3Sandbox = DaemonSandboxTest;

TEST_F(Mp3Sandbox, AddedFileBecomesItsRowAndGoesOnlyOnceDeleted) {
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
