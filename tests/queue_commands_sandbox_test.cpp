// Queue runs of the real daemon in the appliance sandbox, checked through the
// captured log, the music server's SIGHUP count and the media database.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>

#include "daemon_sandbox_env.h"
#include "support/sandbox.h"

namespace {

namespace fs = std::filesystem;
using namespace orvo::test;

constexpr char kBatchFile[] = "/var/spool/orvo_indexing_queue.tmp";

class QueueCommands : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!InSandbox()) GTEST_SKIP() << kNotInSandbox;
    // The start-up run of an empty queue marks the end of start-up.
    std::ofstream(kQueueFile).flush();
    pid_ = StartDaemon(FastDaemonClock());
    ASSERT_GT(pid_, 0);
    ASSERT_TRUE(WaitForHups(1));
    runs_ = 1;
  }
  void TearDown() override {
    if (pid_ > 0) StopDaemon(pid_);
  }

  // Queues the lines, signals once and waits for that run to finish.
  void Run(std::initializer_list<std::string> lines) {
    for (const auto& line : lines) ASSERT_TRUE(AppendQueueLine(line));
    Signal();
  }
  void Signal() {
    ASSERT_TRUE(SignalDaemon());
    ASSERT_TRUE(WaitForHups(++runs_));
  }

  static std::set<std::string> Paths(const char* table) {
    std::set<std::string> paths;
    for (const auto& row : QuerySqlite(kMediaDbFile, std::string("select path from ") + table))
      paths.insert(row.at(0));
    return paths;
  }

  static void MakeMp3(const std::string& path) {
    const std::string cmd =
        "ffmpeg -loglevel error -y -f lavfi -i sine=duration=1 -q:a 9 '" + path + "' </dev/null";
    ASSERT_EQ(system(cmd.c_str()), 0) << "ffmpeg could not make " << path;
  }

  pid_t pid_ = -1;
  int runs_ = 0;
};

TEST_F(QueueCommands, EmptyQueueIsConsumedAndNotified) {
  std::ofstream(kQueueFile).flush();
  Signal();
  EXPECT_FALSE(fs::exists(kQueueFile));
  EXPECT_FALSE(fs::exists(kBatchFile));
  EXPECT_EQ(SandboxLogCount("queue.cpp"), 0);
}

TEST_F(QueueCommands, SignalWithoutQueueGivesUpWithoutNotifying) {
  ASSERT_TRUE(SignalDaemon());
  ASSERT_TRUE(WaitForLog("Failed to open /var/spool/orvo_indexing_queue.tmp. ("));
  EXPECT_EQ(SandboxLogCount("Failed to rename /var/spool/orvo_indexing_queue. ("), 16);
  EXPECT_EQ(SandboxHupCount(), runs_);
}

TEST_F(QueueCommands, BadLinesAreLoggedAndTheRestRuns) {
  fs::create_directories("/volume1/music/kept");
  {
    std::ofstream queue(kQueueFile, std::ios::binary);
    queue << "a/volume1/music/nocolon\n"
          << "x:/volume1/music/unknown\n"
          << "U:music\n"
          << "a:/volume1/music/kept";  // no newline at the end
  }
  Signal();
  EXPECT_EQ(SandboxLogCount("Bad format [a/volume1/music/nocolon"), 1);
  EXPECT_EQ(SandboxLogCount("Bad format [x:/volume1/music/unknown]."), 1);
  EXPECT_EQ(SandboxLogCount("Warning! No new line here."), 1);
  // U with another word than "photo" does nothing and says nothing.
  EXPECT_EQ(SandboxLogCount("music]"), 0);
  EXPECT_EQ(Paths("directory"), std::set<std::string>{"/volume1/music/kept"});
}

TEST_F(QueueCommands, AddAndRemoveFiles) {
  fs::create_directories("/volume1/music/album");
  MakeMp3("/volume1/music/album/one.mp3");
  MakeMp3("/volume1/music/album/._one.mp3");
  Run({"a:/volume1/music/album", "a:/volume1/music/album/one.mp3", "a:/volume1/music/album/._one.mp3"});
  EXPECT_EQ(Paths("directory"), std::set<std::string>{"/volume1/music/album"});
  EXPECT_EQ(Paths("music"), std::set<std::string>{"/volume1/music/album/one.mp3"});

  fs::remove("/volume1/music/album/one.mp3");
  Run({"d:/volume1/music/album/one.mp3", "d:/volume1/music/album"});
  EXPECT_TRUE(Paths("music").empty());
  // A folder's row goes only with a tree delete.
  EXPECT_EQ(Paths("directory"), std::set<std::string>{"/volume1/music/album"});
}

TEST_F(QueueCommands, TreesSkipRecycleBinAndThumbnailFolders) {
  for (const char* d : {"/volume1/music/a/b", "/volume1/music/a/@eaDir/c", "/volume1/music/#recycle/x",
                        "/volume1/music/a/#recycle"})
    fs::create_directories(d);
  MakeMp3("/volume1/music/a/b/s.mp3");
  MakeMp3("/volume1/music/#recycle/x/gone.mp3");
  Run({"A:/volume1/music"});
  EXPECT_EQ(Paths("directory"), (std::set<std::string>{"/volume1/music", "/volume1/music/a",
                                                       "/volume1/music/a/b", "/volume1/music/a/#recycle"}));
  EXPECT_EQ(Paths("music"), std::set<std::string>{"/volume1/music/a/b/s.mp3"});

  Run({"D:/volume1/music/a"});
  EXPECT_EQ(Paths("directory"), std::set<std::string>{"/volume1/music"});
  EXPECT_TRUE(Paths("music").empty());
}

TEST_F(QueueCommands, RenamesMoveRows) {
  fs::create_directories("/volume1/music/old");
  MakeMp3("/volume1/music/old/s.mp3");
  MakeMp3("/volume1/music/t.mp3");
  Run({"A:/volume1/music"});
  ASSERT_EQ(Paths("music"), (std::set<std::string>{"/volume1/music/old/s.mp3", "/volume1/music/t.mp3"}));

  fs::rename("/volume1/music/old", "/volume1/music/new");
  fs::rename("/volume1/music/t.mp3", "/volume1/music/u.mp3");
  Run({"N:/volume1/music/new:/volume1/music/old", "N:/volume1/music/u.mp3:/volume1/music/t.mp3",
       "N:/volume1/music/only-one-path"});
  EXPECT_EQ(Paths("music"), (std::set<std::string>{"/volume1/music/new/s.mp3", "/volume1/music/u.mp3"}));
  EXPECT_EQ(Paths("directory"), (std::set<std::string>{"/volume1/music", "/volume1/music/new"}));
  EXPECT_EQ(SandboxLogCount("Bad format [N:/volume1/music/only-one-path]."), 1);
}

TEST_F(QueueCommands, ReindexMusicAloneOrEveryShare) {
  for (const char* d : {"/volume1/music/m", "/volume1/video/v", "/volume1/photo/p"}) fs::create_directories(d);
  Run({"R:music"});
  EXPECT_EQ(Paths("directory"), (std::set<std::string>{"/volume1/music", "/volume1/music/m"}));

  // The share is emptied and rebuilt, not compared.
  fs::remove_all("/volume1/music/m");
  Run({"R:Photo"});  // not the photo word: every share
  EXPECT_EQ(Paths("directory"), (std::set<std::string>{"/volume1/music", "/volume1/video", "/volume1/video/v",
                                                       "/volume1/photo", "/volume1/photo/p"}));
}

TEST_F(QueueCommands, TruncateEmptiesOnlyKnownTables) {
  fs::create_directories("/volume1/music/m");
  Run({"A:/volume1/music"});
  ASSERT_FALSE(Paths("directory").empty());
  Run({"T:users", "T:music"});
  EXPECT_FALSE(Paths("directory").empty());
  Run({"T:directory"});
  EXPECT_TRUE(Paths("directory").empty());
}

// Lines queued while a batch runs go to a new queue and a later run: each
// line runs once, none is lost.
TEST_F(QueueCommands, LinesQueuedDuringARunRunLater) {
  {
    std::ofstream queue(kQueueFile);
    for (int i = 0; i < 20000; ++i) queue << "x:first batch " << i << "\n";
  }
  ASSERT_TRUE(SignalDaemon());
  while (!fs::exists(kBatchFile) && SandboxHupCount() < runs_ + 1) std::this_thread::sleep_for(1ms);
  ASSERT_TRUE(AppendQueueLine("x:during the run"));
  ASSERT_TRUE(SignalDaemon());
  ASSERT_TRUE(WaitForLog("Bad format [x:during the run]."));
  ASSERT_TRUE(WaitForLog("Bad format [x:first batch 19999]."));
  EXPECT_EQ(SandboxLogCount("Bad format [x:first batch "), 20000);
  EXPECT_EQ(SandboxLogCount("Bad format [x:during the run]."), 1);
}

}  // namespace
