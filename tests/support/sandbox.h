// Helpers for integration tests, which run inside scripts/appliance-sandbox
// (every tests/*_sandbox_test.cpp binary does; see tests/CMakeLists.txt).
//
// Start each test with
//   if (!orvo::test::InSandbox()) GTEST_SKIP() << orvo::test::kNotInSandbox;
// so that running the binary by hand outside the sandbox skips instead of
// touching the host's /var.
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

// Environment that makes the daemon's clock and sleeps run ten times faster,
// so its 10-second ticks take one second.
inline const std::vector<std::string> kFastClock = {
    "LD_PRELOAD=/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1", "FAKETIME=+0 x10"};

// True inside the appliance sandbox (its listener holds /dev/log).
bool InSandbox();

// Every syslog message sent so far (by any process in the sandbox), one per
// element, as sent (with the "<pri>timestamp ident[pid]: " header). Waits
// until the listener has written all of them, so a message logged just
// before the call is counted.
std::vector<std::string> SandboxLogLines();
// How many received messages contain `text`.
int SandboxLogCount(std::string_view text);
// Waits until some message contains `text`; false on timeout.
bool WaitForLog(std::string_view text, std::chrono::milliseconds timeout = 30s);

// SIGHUPs the music server stand-in has received: one per finished queue run.
int SandboxHupCount();
// Waits until the count reaches at least `n`; false on timeout.
bool WaitForHups(int n, std::chrono::milliseconds timeout = 60s);

// Starts ORVO_BINARY_DIR/orvoindexd with the sandbox's environment plus
// `extraEnv` ("NAME=value"), waits until it has written its pid file and
// installed its SIGUSR1 handler, and returns the daemon's pid; -1 when it
// did not come up in time. The test
// process becomes the daemon's reaper, so StopDaemon can collect its status.
pid_t StartDaemon(const std::vector<std::string>& extraEnv = {},
                  std::chrono::milliseconds timeout = 30s);
// Sends SIGTERM and waits for the process to end. Returns its wait status,
// or -1 when it did not end in time (it is then killed).
int StopDaemon(pid_t pid, std::chrono::milliseconds timeout = 30s);
// True while `pid` is a live (not zombie) process.
bool ProcessAlive(pid_t pid);

// Appends `line` and a newline to the indexing queue with one write.
bool AppendQueueLine(std::string_view line);
// Sends SIGUSR1 to the pid in the daemon's pid file.
bool SignalDaemon();

struct CommandResult {
  int status = -1;     // wait status; -1 when it could not run
  std::string output;  // standard output and standard error together
};
// Runs argv[0] (looked up in PATH) and collects its output.
CommandResult RunCommand(const std::vector<std::string>& argv,
                         const std::vector<std::string>& extraEnv = {});

// Runs `sql` on the SQLite file (read-only) and returns the rows, each field
// as text ("" for NULL). An error comes back as one row: {"error: ..."}.
std::vector<std::vector<std::string>> QuerySqlite(const std::string& dbFile, const std::string& sql);

}  // namespace orvo::test
