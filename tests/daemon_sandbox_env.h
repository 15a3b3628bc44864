// Starting and stopping the real daemon in the sandbox tests.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

#include "support/sandbox.h"

namespace orvo::test {

namespace fs = std::filesystem;

inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

// Skips outside the sandbox; stops the daemon the test started.
class DaemonSandboxTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!InSandbox()) GTEST_SKIP() << kNotInSandbox;
  }
  void TearDown() override {
    if (pid_ > 0) StopDaemon(pid_);
  }
  // The start-up run of an empty queue (one SIGHUP) ends start-up: later lines wait for a signal.
  void StartIdle() {
    std::ofstream(kQueueFile).flush();
    pid_ = StartDaemon(kFastClock);
    ASSERT_GT(pid_, 0);
    ASSERT_TRUE(WaitForHups(1));
  }
  // Queues 20000 bad lines ("x:<prefix> <n>"), signals, and returns once their run has begun.
  void StartLongRun(const std::string& prefix) {
    std::ofstream queue(kQueueFile);
    for (int i = 0; i < 20000; ++i) queue << "x:" << prefix << " " << i << "\n";
    queue.close();
    int hups = SandboxHupCount();
    ASSERT_TRUE(SignalDaemon());
    while (!fs::exists(kBatchFile) && SandboxHupCount() == hups) std::this_thread::sleep_for(1ms);
  }
  pid_t pid_ = -1;
};

}  // namespace orvo::test
