// The real daemon: one instance, the pid file, SIGTERM, the leftover batch and feature switches at
// start, debounced runs.
#include <sys/wait.h>

#include "support/sandbox.h"

namespace {

using namespace orvo::test;

const std::string kDaemonBinary = std::string(ORVO_BINARY_DIR) + "/orvoindexd";

class DaemonLifecycle : public DaemonSandboxTest {};

TEST_F(DaemonLifecycle, OneInstanceAPidFileGoneWithSigtermAndAStaleOneIgnored) {
  pid_ = StartDaemon(kFastClock);
  ASSERT_GT(pid_, 0);
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
  pid_ = StartDaemon(kFastClock);
  ASSERT_GT(pid_, 0);
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

// SIGTERM in the middle of a run leaves the batch for the next start: nothing queued is lost.
TEST_F(DaemonLifecycle, BatchCutShortBySigtermRunsAtNextStart) {
  StartIdle();
  StartLongRun("line");
  const int status = StopDaemon(pid_);
  pid_ = -1;
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_EQ(SandboxHupCount(), 1);
  ASSERT_TRUE(fs::exists(kBatchFile));

  pid_ = StartDaemon(kFastClock);
  ASSERT_GT(pid_, 0);
  ASSERT_TRUE(WaitForHups(2));
  EXPECT_GE(SandboxLogCount("Bad format [x:line 19999]."), 1);
  EXPECT_FALSE(fs::exists(kBatchFile));
}

// The feature switches are read at start-up: seen through the photo database rows of a queued picture.
class FeatureSwitches : public DaemonSandboxTest {
 protected:
  // The photo_image rows (no database file: none) after a start on `config` with a picture queued.
  size_t PhotoRowsWith(const std::string& config) {
    const char* cmd = "ffmpeg -loglevel error -y -f lavfi -i color=red:s=16x16 -frames:v 1 /volume1/photo/p.jpg </dev/null";
    EXPECT_EQ(system(cmd), 0);
    std::ofstream("/etc.defaults/orvoinfo.conf") << config;
    std::ofstream(kQueueFile) << "a:/volume1/photo/p.jpg\n";
    pid_ = StartDaemon(kFastClock);
    EXPECT_TRUE(pid_ > 0 && WaitForHups(1));
    EXPECT_EQ(QuerySqlite(kMediaDbFile, "select path from photo").size(), 1u);
    auto rows = QuerySqlite(kPhotoDbFile, "select path from photo_image");
    return rows.size() == 1 && rows[0][0].rfind("error:", 0) == 0 ? 0 : rows.size();
  }
};

TEST_F(FeatureSwitches, PhotoSwitchOnReachesThePhotoDatabase) {
  EXPECT_EQ(PhotoRowsWith("supportcinedock=no\nsupportphoto=\"YES\"\n"), 1u);
}

TEST_F(FeatureSwitches, PhotoSwitchOffKeepsToTheMediaDatabase) {
  EXPECT_EQ(PhotoRowsWith("supportcinedock=yes\nsupportphoto=no\n"), 0u);
}

// Deliberate: both keys share one uncleared buffer, so a missing supportphoto takes supportcinedock's value.
TEST_F(FeatureSwitches, MissingPhotoKeyTakesTheFirstKeysValue) {
  EXPECT_EQ(PhotoRowsWith("supportcinedock=yes\n"), 1u);
  EXPECT_EQ(SandboxLogCount("Can't get key value. key=supportphoto"), 1);
}

}  // namespace
