// Helpers for the integration tests (tests/*_sandbox_test.cpp), which ctest
// runs inside scripts/appliance-sandbox. Start each test with
//   if (!orvo::test::InSandbox()) GTEST_SKIP() << orvo::test::kNotInSandbox;
// so that a run by hand skips instead of touching the host's /var.
#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace orvo::test {

using namespace std::chrono_literals;

inline constexpr const char* kNotInSandbox =
    "not inside the appliance sandbox; run it with scripts/appliance-sandbox -- <test>";
inline constexpr const char* kDaemonPidFile = "/var/run/orvoindexd.pid";
inline constexpr const char* kQueueFile = "/var/spool/orvo_indexing_queue";
inline constexpr const char* kMediaDbFile = "/var/lib/orvoindex/mediaserver.db";
inline constexpr const char* kPhotoDbFile = "/var/lib/orvoindex/photo.db";
// The daemon's clock and sleeps ten times faster: its 10-second ticks take one.
inline const std::vector<std::string> kFastClock = {
    "LD_PRELOAD=/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1", "FAKETIME=+0 x10"};

bool InSandbox();  // its listener holds /dev/log

// Every syslog message sent so far by any process, as sent ("<pri>timestamp
// ident[pid]: text"), including one sent just before the call.
std::vector<std::string> SandboxLogLines();
int SandboxLogCount(std::string_view text);  // messages containing `text`
bool WaitForLog(std::string_view text, std::chrono::milliseconds timeout = 30s);

// SIGHUPs the music server stand-in received: one per finished queue run.
int SandboxHupCount();
bool WaitForHups(int n, std::chrono::milliseconds timeout = 60s);  // count >= n

// Starts ORVO_BINARY_DIR/orvoindexd with `extraEnv` ("NAME=value") added and
// returns its pid once it has written its pid file and catches SIGUSR1; -1 if
// it did not. The test becomes its reaper, so StopDaemon gets its status.
pid_t StartDaemon(const std::vector<std::string>& extraEnv = {}, std::chrono::milliseconds timeout = 30s);
// SIGTERM, then the wait status; -1 when it did not end in time (then killed).
int StopDaemon(pid_t pid, std::chrono::milliseconds timeout = 30s);
bool ProcessAlive(pid_t pid);  // alive and no zombie

bool AppendQueueLine(std::string_view line);  // line and newline in one write
bool SignalDaemon();                          // SIGUSR1 to the pid in the pid file

struct CommandResult {
  int status = -1;     // wait status; -1 when it could not run
  std::string output;  // standard output and standard error together
};
// Runs argv[0] (looked up in PATH) with `extraEnv` added.
CommandResult RunCommand(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv = {});

// The rows of `sql` on the SQLite file, opened read-only, fields as text (""
// for NULL); an error comes back as one row {"error: ..."}.
std::vector<std::vector<std::string>> QuerySqlite(const std::string& dbFile, const std::string& sql);

}  // namespace orvo::test
