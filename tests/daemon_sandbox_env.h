// Starting and stopping the real daemon in the sandbox tests.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "support/sandbox.h"

namespace orvo::test {

// The sandbox's fast clock, plus what a sanitizer build of the daemon needs
// to accept the clock library preloaded ahead of its own runtime.
inline std::vector<std::string> FastDaemonClock() {
  std::vector<std::string> env = kFastClock;
  const char* asan = getenv("ASAN_OPTIONS");
  std::string options = asan != nullptr && *asan != '\0' ? std::string(asan) + ":" : std::string();
  env.push_back("ASAN_OPTIONS=" + options + "verify_asan_link_order=0");
  return env;
}

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
  // Starts the daemon with an empty queue, whose start-up run (one SIGHUP)
  // shows that start-up is over: lines queued later wait for a signal.
  void StartIdle() {
    std::ofstream(kQueueFile).flush();
    pid_ = StartDaemon(FastDaemonClock());
    ASSERT_GT(pid_, 0);
    ASSERT_TRUE(WaitForHups(1));
  }
  pid_t pid_ = -1;
};

}  // namespace orvo::test
