// The real daemon in the appliance sandbox: one instance only, the pid file,
// SIGTERM, the leftover batch at start, and the debounced queue runs.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "daemon_sandbox_env.h"
#include "support/sandbox.h"

namespace {

namespace fs = std::filesystem;
using namespace orvo::test;

const std::string kDaemonBinary = std::string(ORVO_BINARY_DIR) + "/orvoindexd";
constexpr char kBatchFile[] = "/var/spool/orvo_indexing_queue.tmp";

std::string ReadFile(const char* path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

class DaemonLifecycle : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!InSandbox()) GTEST_SKIP() << kNotInSandbox;
  }
  void TearDown() override {
    if (pid_ > 0) StopDaemon(pid_);
  }
  // Starts the daemon with an empty queue, whose start-up run (one SIGHUP)
  // shows that start-up is over: lines queued later wait for a signal.
  bool StartIdle() {
    std::ofstream(kQueueFile).flush();
    pid_ = StartDaemon(FastDaemonClock());
    return pid_ > 0 && WaitForHups(1);
  }
  pid_t pid_ = -1;
};

TEST_F(DaemonLifecycle, SecondStartIsRefused) {
  pid_ = StartDaemon(FastDaemonClock());
  ASSERT_GT(pid_, 0);
  CommandResult second = RunCommand({kDaemonBinary});
  ASSERT_TRUE(WIFEXITED(second.status));
  EXPECT_EQ(WEXITSTATUS(second.status), 1);
  EXPECT_EQ(second.output, "Daemon alive. No need to start\n");
  EXPECT_TRUE(ProcessAlive(pid_));
  EXPECT_EQ(ReadFile("/var/run/orvoindexd.pid"), std::to_string(pid_));
}

TEST_F(DaemonLifecycle, StalePidFileDoesNotStopTheStart) {
  // A pid that cannot be alive: above the kernel's limit.
  std::ofstream("/var/run/orvoindexd.pid") << 99999999;
  CommandResult start = RunCommand({kDaemonBinary});
  ASSERT_TRUE(WIFEXITED(start.status));
  EXPECT_EQ(WEXITSTATUS(start.status), 0) << start.output;
  pid_ = atoi(ReadFile("/var/run/orvoindexd.pid").c_str());
  ASSERT_GT(pid_, 0);
  EXPECT_TRUE(ProcessAlive(pid_));
}

TEST_F(DaemonLifecycle, SigtermRemovesThePidFileAndExitsZero) {
  pid_ = StartDaemon(FastDaemonClock());
  ASSERT_GT(pid_, 0);
  const int status = StopDaemon(pid_);
  pid_ = -1;
  ASSERT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_FALSE(fs::exists("/var/run/orvoindexd.pid"));
}

TEST_F(DaemonLifecycle, HelpPrintsTheBannerOnlyAsTheSoleArgument) {
  CommandResult help = RunCommand({kDaemonBinary, "--help"});
  ASSERT_TRUE(WIFEXITED(help.status));
  EXPECT_EQ(WEXITSTATUS(help.status), 0);
  EXPECT_FALSE(help.output.empty());
  EXPECT_FALSE(fs::exists("/var/run/orvoindexd.pid"));

  // With a further argument the list is ignored and the daemon starts.
  CommandResult start = RunCommand({kDaemonBinary, "--help", "extra"});
  ASSERT_TRUE(WIFEXITED(start.status));
  EXPECT_EQ(WEXITSTATUS(start.status), 0);
  pid_ = atoi(ReadFile("/var/run/orvoindexd.pid").c_str());
  EXPECT_GT(pid_, 0);
}

TEST_F(DaemonLifecycle, LeftoverBatchRunsBeforeTheQueueAtStart) {
  std::ofstream(kBatchFile) << "x:left over\n";
  ASSERT_TRUE(AppendQueueLine("x:queued"));
  pid_ = StartDaemon(FastDaemonClock());
  ASSERT_GT(pid_, 0);
  // Two runs back to back may reach the stand-in as one SIGHUP; the log
  // tells them apart.
  ASSERT_TRUE(WaitForLog("Bad format [x:queued]."));
  int leftOver = -1, queued = -1;
  const auto lines = SandboxLogLines();
  for (size_t i = 0; i < lines.size(); ++i) {
    if (lines[i].find("Bad format [x:left over].") != std::string::npos) leftOver = static_cast<int>(i);
    if (lines[i].find("Bad format [x:queued].") != std::string::npos) queued = static_cast<int>(i);
  }
  EXPECT_GE(leftOver, 0);
  EXPECT_LT(leftOver, queued);
  EXPECT_FALSE(fs::exists(kBatchFile));
  EXPECT_FALSE(fs::exists(kQueueFile));
}

TEST_F(DaemonLifecycle, OneSignalGivesExactlyOneRun) {
  ASSERT_TRUE(StartIdle());
  ASSERT_TRUE(AppendQueueLine("x:once"));
  ASSERT_TRUE(SignalDaemon());
  ASSERT_TRUE(WaitForHups(2));
  // Several further ticks pass (each a tenth of a second of real time per
  // second of the daemon's clock); the queue must not run again.
  std::this_thread::sleep_for(4s);
  EXPECT_EQ(SandboxHupCount(), 2);
  EXPECT_EQ(SandboxLogCount("Failed to rename"), 0);
  EXPECT_EQ(SandboxLogCount("Bad format [x:once]."), 1);
}

TEST_F(DaemonLifecycle, NoSignalNoRun) {
  ASSERT_TRUE(StartIdle());
  ASSERT_TRUE(AppendQueueLine("x:waiting"));
  std::this_thread::sleep_for(3s);
  EXPECT_EQ(SandboxHupCount(), 1);
  EXPECT_TRUE(fs::exists(kQueueFile));
}

TEST_F(DaemonLifecycle, SteadySignalsPostponeTheRun) {
  ASSERT_TRUE(StartIdle());
  ASSERT_TRUE(AppendQueueLine("x:postponed"));
  // A signal every fifth of a tick for about four ticks.
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(SignalDaemon());
    std::this_thread::sleep_for(200ms);
  }
  EXPECT_EQ(SandboxHupCount(), 1);
  EXPECT_TRUE(WaitForHups(2));
}

// Signals that never leave a whole tick quiet would postpone the run for
// ever; the 10,000th one forces it. The daemon runs on its real clock here,
// so no pause of this test can pass for a quiet tick.
TEST_F(DaemonLifecycle, EndlessSignalsForceARunAtTheCeiling) {
  std::ofstream(kQueueFile).flush();
  pid_ = StartDaemon();
  ASSERT_GT(pid_, 0);
  ASSERT_TRUE(WaitForHups(1));
  ASSERT_TRUE(AppendQueueLine("x:forced"));
  int sent = 0;
  const auto deadline = std::chrono::steady_clock::now() + 120s;
  while (SandboxHupCount() < 2 && std::chrono::steady_clock::now() < deadline) {
    for (int i = 0; i < 100; ++i, ++sent) {
      ASSERT_EQ(kill(pid_, SIGUSR1), 0);
      std::this_thread::sleep_for(100us);
    }
  }
  ASSERT_EQ(SandboxHupCount(), 2) << "no run after " << sent << " signals";
  EXPECT_GE(sent, 10000);
  EXPECT_EQ(SandboxLogCount("Bad format [x:forced]."), 1);
}

// SIGTERM in the middle of a run leaves the batch, which the next start runs.
TEST_F(DaemonLifecycle, BatchCutShortBySigtermRunsAtNextStart) {
  ASSERT_TRUE(StartIdle());
  {
    std::ofstream queue(kQueueFile);
    for (int i = 0; i < 20000; ++i) queue << "x:line " << i << "\n";
  }
  ASSERT_TRUE(SignalDaemon());
  while (!fs::exists(kBatchFile) && SandboxHupCount() < 2) std::this_thread::sleep_for(1ms);
  const int status = StopDaemon(pid_);
  pid_ = -1;
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(SandboxHupCount(), 1);
  ASSERT_TRUE(fs::exists(kBatchFile));

  pid_ = StartDaemon(FastDaemonClock());
  ASSERT_GT(pid_, 0);
  ASSERT_TRUE(WaitForHups(2));
  EXPECT_GE(SandboxLogCount("Bad format [x:line 19999]."), 1);
  EXPECT_FALSE(fs::exists(kBatchFile));
}

}  // namespace
