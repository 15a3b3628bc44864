// Queue runs of the real daemon, seen in the log, the music server's SIGHUPs and the media database.
#include <sys/wait.h>

#include <set>

#include "support/sandbox.h"

namespace {

using namespace orvo::test;
using Paths = std::set<std::string>;

class QueueCommands : public DaemonSandboxTest {
 protected:
  void SetUp() override {
    DaemonSandboxTest::SetUp();
    if (!IsSkipped()) StartIdle();
  }
  // Queues the lines, signals once and waits for that run to finish.
  void Run(std::initializer_list<std::string> lines) {
    for (const auto& line : lines) ASSERT_TRUE(AppendQueueLine(line));
    ASSERT_TRUE(SignalDaemon());
    ASSERT_TRUE(WaitForHups(++runs_));
  }
  static Paths Rows(const char* table) {
    Paths paths;
    for (const auto& row : QuerySqlite(kMediaDbFile, std::string("select path from ") + table)) paths.insert(row.at(0));
    return paths;
  }
  static void MakeMp3(const std::string& path) {
    const std::string cmd = "ffmpeg -loglevel error -y -f lavfi -i sine=duration=1 -q:a 9 '" + path + "' </dev/null";
    ASSERT_EQ(system(cmd.c_str()), 0) << "ffmpeg could not make " << path;
  }
  int runs_ = 1;
};

TEST_F(QueueCommands, EmptyQueueIsConsumedAndNotified) {
  std::ofstream(kQueueFile).flush();
  Run({});
  EXPECT_FALSE(fs::exists(kQueueFile) || fs::exists(kBatchFile));
  EXPECT_EQ(SandboxLogCount("queue.cpp"), 0);
}

TEST_F(QueueCommands, BadLinesAreLoggedAndTheRestRunsEvenWithoutTheLastNewline) {
  fs::create_directories("/volume1/music/kept");
  // U with another word than "photo" does nothing: a re-index would add /volume1/music.
  std::ofstream(kQueueFile, std::ios::binary) << "a/volume1/music/nocolon\nx:/volume1/music/unknown\nU:music\n"
                                              << "N:/volume1/music/only-one-path\na:/volume1/music/kept";
  Run({});
  for (const char* line : {"a/volume1/music/nocolon", "x:/volume1/music/unknown", "N:/volume1/music/only-one-path"})
    EXPECT_EQ(SandboxLogCount("Bad format [" + std::string(line)), 1) << line;
  EXPECT_EQ(SandboxLogCount("Warning! No new line here."), 1);
  EXPECT_EQ(Rows("directory"), Paths{"/volume1/music/kept"});
}

TEST_F(QueueCommands, FilesAndFoldersAreAddedRenamedAndRemoved) {
  fs::create_directories("/volume1/music/album/sub");
  MakeMp3("/volume1/music/album/one.mp3");
  MakeMp3("/volume1/music/album/._one.mp3");
  Run({"a:/volume1/music/album", "a:/volume1/music/album/one.mp3", "a:/volume1/music/album/._one.mp3"});
  EXPECT_EQ(Rows("directory"), Paths{"/volume1/music/album"});
  EXPECT_EQ(Rows("music"), Paths{"/volume1/music/album/one.mp3"});
  fs::remove("/volume1/music/album/one.mp3");
  Run({"d:/volume1/music/album/one.mp3", "d:/volume1/music/album"});
  EXPECT_TRUE(Rows("music").empty());
  EXPECT_EQ(Rows("directory"), Paths{"/volume1/music/album"});  // a folder's row goes only with a tree delete
  MakeMp3("/volume1/music/album/sub/two.mp3");
  Run({"A:/volume1/music"});
  EXPECT_EQ(Rows("directory"), (Paths{"/volume1/music", "/volume1/music/album", "/volume1/music/album/sub"}));
  fs::rename("/volume1/music/album", "/volume1/music/new");
  fs::rename("/volume1/music/new/sub/two.mp3", "/volume1/music/new/sub/three.mp3");
  Run({"N:/volume1/music/new:/volume1/music/album", "N:/volume1/music/new/sub/three.mp3:/volume1/music/new/sub/two.mp3"});
  EXPECT_EQ(Rows("music"), Paths{"/volume1/music/new/sub/three.mp3"});
  EXPECT_EQ(Rows("directory"), (Paths{"/volume1/music", "/volume1/music/new", "/volume1/music/new/sub"}));
  Run({"D:/volume1/music/new"});
  EXPECT_EQ(Rows("directory"), Paths{"/volume1/music"});
  EXPECT_TRUE(Rows("music").empty());
}

TEST_F(QueueCommands, ReindexMusicAloneOrEveryShareAndTruncateOnlyKnownTables) {
  for (const char* d : {"/volume1/music/m", "/volume1/video/v", "/volume1/photo/p"}) fs::create_directories(d);
  Run({"R:music"});
  EXPECT_EQ(Rows("directory"), (Paths{"/volume1/music", "/volume1/music/m"}));
  fs::remove_all("/volume1/music/m");  // the share is emptied and rebuilt, not compared
  Run({"R:Photo"});  // not the photo word: every share
  EXPECT_EQ(Rows("directory"),
            (Paths{"/volume1/music", "/volume1/video", "/volume1/video/v", "/volume1/photo", "/volume1/photo/p"}));
  Run({"T:users", "T:music"});
  EXPECT_EQ(Rows("directory").size(), 5u);
  Run({"T:directory"});
  EXPECT_TRUE(Rows("directory").empty());
}

// Lines queued during a run go to a later one: each runs once, none is lost.
TEST_F(QueueCommands, LinesQueuedDuringARunRunLater) {
  StartLongRun("first batch");
  ASSERT_TRUE(AppendQueueLine("x:during the run"));
  ASSERT_TRUE(SignalDaemon());
  ASSERT_TRUE(WaitForLog("Bad format [x:during the run]."));
  ASSERT_TRUE(WaitForLog("Bad format [x:first batch 19999]."));
  EXPECT_EQ(SandboxLogCount("Bad format [x:first batch "), 20000);
  EXPECT_EQ(SandboxLogCount("Bad format [x:during the run]."), 1);
}

// The client queues its line and signals the daemon; "status" names the daemon that runs.
TEST_F(QueueCommands, ClientQueuesATreeThatIsIndexedAfterOneCall) {
  const std::string client = std::string(ORVO_BINARY_DIR) + "/orvoindex";
  fs::create_directories("/volume1/music/a/b");
  CommandResult add = RunCommand({client, "add-tree", "/volume1/music/a"});
  EXPECT_TRUE(WIFEXITED(add.status) && WEXITSTATUS(add.status) == 0) << add.output;
  ASSERT_TRUE(WaitForHups(2));
  EXPECT_EQ(Rows("directory"), (Paths{"/volume1/music/a", "/volume1/music/a/b"}));
  CommandResult status = RunCommand({client, "status"});
  EXPECT_TRUE(WIFEXITED(status.status) && WEXITSTATUS(status.status) == 0);
  EXPECT_NE(status.output.find("running (pid " + std::to_string(pid_) + ")"), std::string::npos) << status.output;
}

}  // namespace
