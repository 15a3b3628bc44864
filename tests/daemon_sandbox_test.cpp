// The real daemon: one instance, pid file, SIGTERM, start-up, debounced runs, and the queue commands.
#include <sys/wait.h>

#include <set>

#include "mp3_test_bytes.h"
#include "support/sandbox.h"

namespace {

using namespace orvo::test;

const std::string kDaemonBinary = std::string(ORVO_BINARY_DIR) + "/orvoindexd";

class DaemonLifecycle : public DaemonSandboxTest {};

TEST_F(DaemonLifecycle, OneInstanceAPidFileGoneWithSigtermAndAStaleOneIgnored) {
  ASSERT_GT(pid_ = StartDaemon(kFastClock), 0);
  CommandResult second = RunCommand({kDaemonBinary});
  EXPECT_TRUE(WIFEXITED(second.status) && WEXITSTATUS(second.status) == 1) << second.status;
  EXPECT_EQ(second.output, "Daemon alive. No need to start\n");
  EXPECT_EQ(ReadFile(kDaemonPidFile), std::to_string(pid_));
  const int status = StopDaemon(pid_);
  pid_ = -1;
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_FALSE(fs::exists(kDaemonPidFile));

  std::ofstream(kDaemonPidFile) << 99999999;  // above the kernel's pid limit: cannot be alive
  CommandResult start = RunCommand({kDaemonBinary});
  EXPECT_TRUE(WIFEXITED(start.status) && WEXITSTATUS(start.status) == 0) << start.output;
  // The child of daemon() writes its pid a moment later: wait while the file is empty or stale.
  for (int i = 0; i < 500 && atoi(ReadFile(kDaemonPidFile).c_str()) % 99999999 == 0; ++i)
    std::this_thread::sleep_for(10ms);
  pid_ = atoi(ReadFile(kDaemonPidFile).c_str());
  EXPECT_TRUE(pid_ > 0 && ProcessAlive(pid_));
}

TEST_F(DaemonLifecycle, LeftoverBatchRunsBeforeTheQueueAtStart) {
  std::ofstream(kBatchFile) << "x:left over\n";
  ASSERT_TRUE(AppendQueueLine("x:queued"));
  ASSERT_GT(pid_ = StartDaemon(kFastClock), 0);
  // Two runs back to back may reach the stand-in as one SIGHUP; the log tells them apart.
  ASSERT_TRUE(WaitForLog("Bad format [x:queued]."));
  std::string log;
  for (const auto& line : SandboxLogLines()) log += line + "\n";
  EXPECT_LT(log.find("Bad format [x:left over]."), log.find("Bad format [x:queued]."));
  EXPECT_FALSE(fs::exists(kBatchFile) || fs::exists(kQueueFile));
}

// Each tick of the daemon's fast clock is a second of real time.
TEST_F(DaemonLifecycle, NoRunWithoutASignalNoneWhileSignalsGoOnThenExactlyOne) {
  StartIdle();
  ASSERT_TRUE(AppendQueueLine("x:once"));
  std::this_thread::sleep_for(3s);
  EXPECT_EQ(SandboxHupCount(), 1);
  for (int i = 0; i < 20; ++i) {  // a signal every fifth of a tick for about four ticks
    ASSERT_TRUE(SignalDaemon());
    std::this_thread::sleep_for(200ms);
  }
  EXPECT_EQ(SandboxHupCount(), 1);
  ASSERT_TRUE(WaitForHups(2));
  std::this_thread::sleep_for(4s);
  EXPECT_EQ(SandboxHupCount(), 2);
  EXPECT_EQ(SandboxLogCount("Bad format [x:once]."), 1);
}

// The feature switches are read at start-up: seen through the photo database rows of a queued picture.
class FeatureSwitches : public DaemonSandboxTest {
 protected:
  // The photo_image rows (no database file: none) after a start on `config` with a picture queued.
  size_t PhotoRowsWith(const std::string& config) {
    EXPECT_TRUE(WriteJpeg("/volume1/photo/p.jpg"));
    std::ofstream("/etc.defaults/orvoinfo.conf") << config;
    EXPECT_GT(pid_ = StartOnQueue({"a:/volume1/photo/p.jpg"}), 0);
    EXPECT_EQ(QuerySqlite(kMediaDbFile, "select path from photo").size(), 1u);
    auto rows = QuerySqlite(kPhotoDbFile, "select path from photo_image");
    return rows.size() == 1 && rows[0][0].rfind("error:", 0) == 0 ? 0 : rows.size();
  }
};

TEST_F(FeatureSwitches, PhotoSwitchOffKeepsToTheMediaDatabase) {
  EXPECT_EQ(PhotoRowsWith("supportcinedock=yes\nsupportphoto=no\n"), 0u);
}

// Deliberate: both keys share one uncleared buffer, so a missing supportphoto takes supportcinedock's
// value ("yes" in any case turns a switch on).
TEST_F(FeatureSwitches, MissingPhotoKeyTakesTheFirstKeysValue) {
  EXPECT_EQ(PhotoRowsWith("supportcinedock=\"YES\"\n"), 1u);
  EXPECT_EQ(SandboxLogCount("Can't get key value. key=supportphoto"), 1);
}

// Queue runs of the real daemon, seen in the log, the music server's SIGHUPs and the media database.
using Paths = std::multiset<std::string>;

class QueueCommands : public DaemonSandboxTest {
 protected:
  void SetUp() override {
    DaemonSandboxTest::SetUp();
    if (!IsSkipped()) StartIdle();
  }
  void Run(const std::vector<std::string>& lines) { ASSERT_TRUE(RunLines(lines)); }
  static Paths Rows(const char* table) { return Column(kMediaDbFile, std::string("select path from ") + table); }
  static void MakeMp3(const std::string& path) { std::ofstream(path, std::ios::binary) << mp3test::TaggedMp3("t"); }
};

TEST_F(QueueCommands, BadLinesAreLoggedAndTheRestRunsEvenWithoutTheLastNewline) {
  fs::create_directories("/volume1/music/kept");
  fs::create_directories("/volume1/music/nul");
  // U with another word than "photo" does nothing: a re-index would add /volume1/music. A line ends at
  // a NUL, which hides its newline: it runs after the warning.
  std::ofstream(kQueueFile, std::ios::binary) << "a/volume1/music/nocolon\nx:/volume1/music/unknown\nU:music\n"
                                              << std::string("a:/volume1/music/nul\0tail\n", 26)
                                              << "N:/volume1/music/only-one-path\na:/volume1/music/kept";
  Run({});
  for (const char* line : {"a/volume1/music/nocolon", "x:/volume1/music/unknown", "N:/volume1/music/only-one-path"})
    EXPECT_EQ(SandboxLogCount("Bad format [" + std::string(line)), 1) << line;
  EXPECT_EQ(SandboxLogCount("Warning! No new line here."), 2);
  EXPECT_EQ(Rows("directory"), (Paths{"/volume1/music/kept", "/volume1/music/nul"}));
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

}  // namespace
