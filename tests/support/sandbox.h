// Helpers for the *_sandbox_test tests, run inside scripts/appliance-sandbox (elsewhere they skip).
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
#include <string_view>

namespace orvo::test {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

inline constexpr const char* kNotInSandbox =
    "not inside the appliance sandbox; run it with scripts/appliance-sandbox -- <test>";
inline constexpr const char* kDaemonPidFile = "/var/run/orvoindexd.pid";
inline constexpr const char* kQueueFile = "/var/spool/orvo_indexing_queue";
inline constexpr const char* kBatchFile = "/var/spool/orvo_indexing_queue.tmp";
inline constexpr const char* kMediaDbFile = "/var/lib/orvoindex/mediaserver.db";
inline constexpr const char* kPhotoDbFile = "/var/lib/orvoindex/photo.db";
// The daemon's clock and sleeps ten times faster: its 10-second ticks take one.
inline const std::vector<std::string> kFastClock = {
    "LD_PRELOAD=/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1", "FAKETIME=+0 x10"};

bool InSandbox();  // its listener holds /dev/log

// Every syslog message any process sent before the call, as sent ("<pri>timestamp ident[pid]: text").
std::vector<std::string> SandboxLogLines();
int SandboxLogCount(std::string_view text);  // messages containing `text`
bool WaitForLog(std::string_view text, std::chrono::milliseconds timeout = 30s);

// SIGHUPs the music server stand-in received: one per finished queue run.
int SandboxHupCount();
bool WaitForHups(int n, std::chrono::milliseconds timeout = 60s);  // count >= n

// Starts orvoindexd with `extraEnv` ("NAME=value") added; its pid once it catches SIGUSR1, else -1.
pid_t StartDaemon(const std::vector<std::string>& extraEnv = {}, std::chrono::milliseconds timeout = 30s);
// SIGTERM, then the wait status; -1 when it did not end in time (then killed).
int StopDaemon(pid_t pid, std::chrono::milliseconds timeout = 30s);
bool ProcessAlive(pid_t pid);  // alive and no zombie

bool AppendQueueLine(std::string_view line);  // line and newline in one write
bool SignalDaemon();                          // SIGUSR1 to the pid in the pid file
// Queues `lines`, signals once and waits for that run's SIGHUP.
bool RunLines(const std::vector<std::string>& lines);
// Starts the daemon on the fast clock (and `extraEnv`) with `lines` queued; its pid once their start-up
// run has ended (one SIGHUP), else -1. Later lines wait for a signal.
pid_t StartOnQueue(const std::vector<std::string>& lines = {}, const std::vector<std::string>& extraEnv = {});

struct CommandResult {
  int status = -1;     // wait status; -1 when it could not run
  std::string output;  // standard output and standard error together
};
CommandResult RunCommand(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv = {});

// The rows of `sql` on the SQLite file, read-only, NULL as ""; an error as one row {"error: ..."}.
std::vector<std::vector<std::string>> QuerySqlite(const std::string& dbFile, const std::string& sql);
// The first column of every row; a multiset, so that a row stored twice shows.
std::multiset<std::string> Column(const std::string& dbFile, const std::string& sql);
std::string ReadFile(const std::string& path);
// A small red JPEG at `path`, made by ffmpeg; false when it could not be made.
bool WriteJpeg(const std::string& path);
// `names` as folders of `share`, each holding a link to every other one ("to_<name>", relative) and
// one to the share itself ("up").
void CrossLink(const std::string& share, const std::vector<std::string>& names);
// Nests folders of up to 200 bytes under the existing folder `top` until the deepest one's path is
// `length` bytes long (no path call could reach it); that path in `deepest` and an open descriptor on
// the folder, else -1.
int MakeFolderChain(const std::string& top, size_t length, std::string* deepest);

// Skips outside the sandbox; the daemon the test started must end on SIGTERM.
class DaemonSandboxTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!InSandbox()) GTEST_SKIP() << kNotInSandbox;
  }
  void TearDown() override {
    if (pid_ > 0) {
      EXPECT_GE(StopDaemon(pid_), 0) << "the daemon did not end on SIGTERM";
    }
  }
  void StartIdle() { ASSERT_GT(pid_ = StartOnQueue(), 0); }
  // Queues 20000 bad lines ("x:<prefix> <n>"), signals, and returns once their run has begun.
  void StartLongRun(const std::string& prefix);
  pid_t pid_ = -1;
};

}  // namespace orvo::test
