// The real daemon in the appliance sandbox: one instance only, the pid file,
// SIGTERM, the leftover batch at start, and the debounced queue runs.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <filesystem>
#include <thread>

#include "daemon_sandbox_env.h"

namespace {

namespace fs = std::filesystem;
using namespace orvo::test;

const std::string kDaemonBinary = std::string(ORVO_BINARY_DIR) + "/orvoindexd";
constexpr char kBatchFile[] = "/var/spool/orvo_indexing_queue.tmp";

class DaemonLifecycle : public DaemonSandboxTest {};

TEST_F(DaemonLifecycle, SecondStartIsRefusedAndSigtermRemovesThePidFile) {
  pid_ = StartDaemon(FastDaemonClock());
  ASSERT_GT(pid_, 0);
  CommandResult second = RunCommand({kDaemonBinary});
  ASSERT_TRUE(WIFEXITED(second.status));
  EXPECT_EQ(WEXITSTATUS(second.status), 1);
  EXPECT_EQ(second.output, "Daemon alive. No need to start\n");
  EXPECT_EQ(ReadFile(kDaemonPidFile), std::to_string(pid_));
  const int status = StopDaemon(pid_);
  pid_ = -1;
  ASSERT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_FALSE(fs::exists(kDaemonPidFile));
}

TEST_F(DaemonLifecycle, StalePidFileDoesNotStopTheStart) {
  std::ofstream(kDaemonPidFile) << 99999999;  // above the kernel's pid limit: cannot be alive
  CommandResult start = RunCommand({kDaemonBinary});
  ASSERT_TRUE(WIFEXITED(start.status));
  EXPECT_EQ(WEXITSTATUS(start.status), 0) << start.output;
  pid_ = atoi(ReadFile(kDaemonPidFile).c_str());
  ASSERT_GT(pid_, 0);
  EXPECT_TRUE(ProcessAlive(pid_));
}

TEST_F(DaemonLifecycle, LeftoverBatchRunsBeforeTheQueueAtStart) {
  std::ofstream(kBatchFile) << "x:left over\n";
  ASSERT_TRUE(AppendQueueLine("x:queued"));
  pid_ = StartDaemon(FastDaemonClock());
  ASSERT_GT(pid_, 0);
  // Two runs back to back may reach the stand-in as one SIGHUP; the log tells them apart.
  ASSERT_TRUE(WaitForLog("Bad format [x:queued]."));
  const auto lines = SandboxLogLines();
  auto at = [&](const char* text) {
    for (size_t i = 0; i < lines.size(); ++i)
      if (lines[i].find(text) != std::string::npos) return static_cast<int>(i);
    return -1;
  };
  EXPECT_GE(at("Bad format [x:left over]."), 0);
  EXPECT_LT(at("Bad format [x:left over]."), at("Bad format [x:queued]."));
  EXPECT_FALSE(fs::exists(kBatchFile));
  EXPECT_FALSE(fs::exists(kQueueFile));
}

TEST_F(DaemonLifecycle, NoRunWithoutASignalAndExactlyOneRunForOne) {
  StartIdle();
  ASSERT_TRUE(AppendQueueLine("x:once"));
  // Each tick is a tenth of a second of real time per second of the daemon's clock.
  std::this_thread::sleep_for(3s);
  EXPECT_EQ(SandboxHupCount(), 1);
  ASSERT_TRUE(SignalDaemon());
  ASSERT_TRUE(WaitForHups(2));
  std::this_thread::sleep_for(4s);
  EXPECT_EQ(SandboxHupCount(), 2);
  EXPECT_EQ(SandboxLogCount("Bad format [x:once]."), 1);
}

TEST_F(DaemonLifecycle, SteadySignalsPostponeTheRun) {
  StartIdle();
  ASSERT_TRUE(AppendQueueLine("x:postponed"));
  for (int i = 0; i < 20; ++i) {  // a signal every fifth of a tick for about four ticks
    ASSERT_TRUE(SignalDaemon());
    std::this_thread::sleep_for(200ms);
  }
  EXPECT_EQ(SandboxHupCount(), 1);
  EXPECT_TRUE(WaitForHups(2));
}

}  // namespace
