// The daemon in the appliance sandbox: an "a:" queue line on an MP3 ends as
// its music row; "d:" removes the row only once the file is gone.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "mp3_test_bytes.h"
#include "support/sandbox.h"

namespace {

using namespace orvo::test;
using namespace mp3test;
using Rows = std::vector<std::vector<std::string>>;

TEST(Mp3Sandbox, AddedFileBecomesItsRowAndGoesOnlyOnceDeleted) {
  if (!InSandbox()) GTEST_SKIP() << kNotInSandbox;
  std::ofstream(kQueueFile).flush();
  pid_t pid = StartDaemon(kFastClock);
  ASSERT_GT(pid, 0);
  struct Stop { pid_t pid; ~Stop() { StopDaemon(pid); } } stop{pid};
  ASSERT_TRUE(WaitForHups(1));
  auto run = [](const std::string& line, int hups) {
    return AppendQueueLine(line) && SignalDaemon() && WaitForHups(hups);
  };
  const std::string folder = "/volume1/music/Road Trip", song = folder + "/01 Opening.mp3";
  std::filesystem::create_directories(folder);
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
  std::filesystem::remove(song);
  EXPECT_TRUE(run("d:" + song, 4));
  EXPECT_EQ(QuerySqlite(kMediaDbFile, "select count(*) from music"), (Rows{{"0"}}));
}

}  // namespace
