// The real daemon: one instance, the pid file, SIGTERM, the leftover batch at start, debounced runs.
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

}  // namespace
