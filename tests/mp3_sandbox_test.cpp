// The daemon in the appliance sandbox: an "a:" queue line on an MP3 ends as
// its music row; "d:" removes the row only once the file is gone.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "mp3_test_bytes.h"
#include "support/sandbox.h"

namespace {

namespace fs = std::filesystem;
using namespace orvo::test;
using namespace mp3test;

const std::string kFolder = "/volume1/music/Road Trip";

std::vector<std::vector<std::string>> Music(const std::string& columns) {
  return QuerySqlite(kMediaDbFile, "select " + columns + " from music order by path");
}

class Mp3Sandbox : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!InSandbox()) GTEST_SKIP() << kNotInSandbox;
    std::ofstream(kQueueFile).flush();
    pid_ = StartDaemon(kFastClock);
    ASSERT_GT(pid_, 0);
    ASSERT_TRUE(WaitForHups(1));
  }
  void TearDown() override {
    if (pid_ > 0) StopDaemon(pid_);
  }
  void Run(const std::string& line, int hups) {
    ASSERT_TRUE(AppendQueueLine(line));
    ASSERT_TRUE(SignalDaemon());
    ASSERT_TRUE(WaitForHups(hups));
  }
  pid_t pid_ = -1;
};

TEST_F(Mp3Sandbox, AddedFileBecomesItsRowAndGoesOnlyOnceDeleted) {
  fs::create_directories(kFolder);
  std::string tagged = kFolder + "/01 Opening.mp3";
  std::string bare = kFolder + "/untagged.mp3";
  std::string tagless_audio = Cbr128(40, 3);
  std::ofstream(tagged, std::ios::binary)
      << Id3v2(4, Frame24("TIT2", Text("Opening")) + Frame24("TPE1", Text("The Band")) +
                      Frame24("TCON", Text("(17)")) + Frame24("TRCK", Text("1/9")))
      << XingStream(500, 40);
  std::ofstream(bare, std::ios::binary) << tagless_audio;
  std::ofstream(kFolder + "/broken.mp3", std::ios::binary) << std::string(5000, '\0');

  Run("a:" + tagged, 2);
  Run("a:" + bare, 3);
  Run("a:" + kFolder + "/broken.mp3", 4);
  EXPECT_EQ(Music("path, title, artist, album, genre, track, bitrate, frequency, channels"),
            (std::vector<std::vector<std::string>>{
                {tagged, "Opening", "The Band", "Road Trip", "Rock", "1", "128000", "44100", "1"},
                {bare, "untagged", "", "Road Trip", "", "0", "128000", "44100", "3"}}));
  auto duration = Music("round(duration, 2)");
  ASSERT_EQ(duration.size(), 2u);
  EXPECT_EQ(duration[0][0], "13.06");  // 500 frames of 1152 samples at 44100 Hz
  EXPECT_GE(SandboxLogCount("Can't find valid mpeg header: " + kFolder + "/broken.mp3"), 1);
  EXPECT_GE(SandboxLogCount("Failed to parse music metadata."), 1);

  // Still there: the row stays.
  Run("d:" + bare, 5);
  EXPECT_GE(SandboxLogCount("File exists. Skip remove it from database."), 1);
  EXPECT_EQ(Music("path").size(), 2u);

  fs::remove(bare);
  Run("d:" + bare, 6);
  EXPECT_EQ(Music("path"), (std::vector<std::vector<std::string>>{{tagged}}));
}

}  // namespace
