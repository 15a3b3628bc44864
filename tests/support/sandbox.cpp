#include "support/sandbox.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <memory>
#include <sqlite3.h>
#include <sstream>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace orvo::test {

namespace {

constexpr auto kPoll = 20ms;

std::string EnvOr(const char* name, const char* fallback) {
  const char* value = getenv(name);
  return value != nullptr && value[0] != '\0' ? value : fallback;
}

std::string LogFile() { return EnvOr("ORVO_SANDBOX_LOG", "/run/orvo-sandbox/syslog.log"); }
std::string HupFile() { return EnvOr("ORVO_SANDBOX_HUPS", "/run/orvo-sandbox/hups"); }

template <typename Done>
bool PollUntil(std::chrono::milliseconds timeout, Done done,
               std::chrono::milliseconds interval = kPoll) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (done()) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(interval);
  }
}

int ReadPid(const char* path) {
  std::ifstream in(path);
  int pid = 0;
  return (in >> pid) ? pid : 0;
}

bool HasVariable(const std::vector<std::string>& env, std::string_view name) {
  for (const auto& e : env)
    if (e.size() > name.size() && e.compare(0, name.size(), name) == 0 && e[name.size()] == '=') return true;
  return false;
}

// The current environment with `extra` ("NAME=value") added or replacing.
std::vector<std::string> MergedEnvironment(std::vector<std::string> extra) {
  // A preloaded library (the fast clock) lands ahead of a sanitizer runtime,
  // which ASan refuses unless told that this order is fine.
  if (HasVariable(extra, "LD_PRELOAD") && !HasVariable(extra, "ASAN_OPTIONS")) {
    const char* current = getenv("ASAN_OPTIONS");
    std::string options = current != nullptr && current[0] != '\0' ? std::string(current) + ":" : "";
    extra.push_back("ASAN_OPTIONS=" + options + "verify_asan_link_order=0");
  }
  std::vector<std::string> env;
  for (char** e = environ; *e != nullptr; ++e) {
    std::string_view entry = *e;
    bool replaced = false;
    for (const auto& x : extra) {
      size_t eq = x.find('=');
      if (eq != std::string::npos && entry.substr(0, eq + 1) == std::string_view(x).substr(0, eq + 1))
        replaced = true;
    }
    if (!replaced) env.emplace_back(entry);
  }
  env.insert(env.end(), extra.begin(), extra.end());
  return env;
}

std::vector<char*> Pointers(std::vector<std::string>& strings) {
  std::vector<char*> p;
  for (auto& s : strings) p.push_back(s.data());
  p.push_back(nullptr);
  return p;
}

struct SqliteCloser {
  void operator()(sqlite3* db) const { sqlite3_close(db); }
};
struct StatementCloser {
  void operator()(sqlite3_stmt* st) const { sqlite3_finalize(st); }
};

}  // namespace

bool InSandbox() {
  struct stat st;
  const char* flag = getenv("ORVO_SANDBOX");
  return flag != nullptr && strcmp(flag, "1") == 0 && stat("/dev/log", &st) == 0 && S_ISSOCK(st.st_mode);
}

namespace {

constexpr std::string_view kSyncMarker = "orvo-sandbox-sync ";

std::vector<std::string> ReadLogFile() {
  std::vector<std::string> lines;
  std::ifstream in(LogFile());
  std::string line;
  while (std::getline(in, line))
    if (line.find(kSyncMarker) == std::string::npos) lines.push_back(line);
  return lines;
}

bool LogFileHas(std::string_view text) {
  std::ifstream in(LogFile());
  std::string line;
  while (std::getline(in, line))
    if (line.find(text) != std::string::npos) return true;
  return false;
}

int CountIn(const std::vector<std::string>& lines, std::string_view text) {
  int n = 0;
  for (const auto& line : lines)
    if (line.find(text) != std::string::npos) ++n;
  return n;
}

// The listener writes what it receives a moment later. One socket queues
// all senders' messages in order, so once a marker sent now is in the file,
// so is every message sent before it, by any process.
void SyncLog() {
  static int sequence = 0;
  std::string marker = std::string(kSyncMarker) + std::to_string(getpid()) + "." + std::to_string(++sequence);
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return;
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  strcpy(addr.sun_path, "/dev/log");
  bool sent = sendto(fd, marker.data(), marker.size(), 0, reinterpret_cast<sockaddr*>(&addr), sizeof addr) ==
              static_cast<ssize_t>(marker.size());
  close(fd);
  if (sent) PollUntil(5s, [&] { return LogFileHas(marker); }, 1ms);
}

}  // namespace

std::vector<std::string> SandboxLogLines() {
  if (InSandbox()) SyncLog();
  return ReadLogFile();
}

int SandboxLogCount(std::string_view text) { return CountIn(SandboxLogLines(), text); }

bool WaitForLog(std::string_view text, std::chrono::milliseconds timeout) {
  return PollUntil(timeout, [&] { return CountIn(ReadLogFile(), text) > 0; }) || SandboxLogCount(text) > 0;
}

int SandboxHupCount() {
  std::ifstream in(HupFile());
  int n = 0;
  return (in >> n) ? n : 0;
}

bool WaitForHups(int n, std::chrono::milliseconds timeout) {
  return PollUntil(timeout, [&] { return SandboxHupCount() >= n; });
}

// True once `pid` has a handler for `signo`: the daemon writes its pid file
// before it installs its handlers, and a SIGUSR1 in between would kill it.
static bool CatchesSignal(pid_t pid, int signo) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("SigCgt:", 0) != 0) continue;
    unsigned long long mask = strtoull(line.c_str() + 7, nullptr, 16);
    return (mask >> (signo - 1)) & 1;
  }
  return false;
}

bool ProcessAlive(pid_t pid) {
  if (pid <= 0 || kill(pid, 0) != 0) return false;
  // A zombie still answers kill(); it is gone for our purposes.
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string all((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
  size_t paren = all.rfind(')');
  return paren == std::string::npos || paren + 2 >= all.size() || all[paren + 2] != 'Z';
}

pid_t StartDaemon(const std::vector<std::string>& extraEnv, std::chrono::milliseconds timeout) {
  // The daemon forks itself away from its parent; as sub-reaper the test
  // inherits it and can wait for its exit status.
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  unlink(kDaemonPidFile);
  std::string binary = std::string(ORVO_BINARY_DIR) + "/orvoindexd";
  std::vector<std::string> env = MergedEnvironment(extraEnv);
  std::vector<std::string> args = {binary};
  pid_t child = fork();
  if (child < 0) return -1;
  if (child == 0) {
    auto argv = Pointers(args);
    auto envp = Pointers(env);
    execve(binary.c_str(), argv.data(), envp.data());
    _exit(127);
  }
  pid_t daemonPid = -1;
  bool started = PollUntil(timeout, [&] {
    int pid = ReadPid(kDaemonPidFile);
    if (pid > 0 && ProcessAlive(pid) && CatchesSignal(pid, SIGUSR1)) {
      daemonPid = pid;
      return true;
    }
    int status;
    // The first process ends once it has become a daemon (or failed to).
    waitpid(child, &status, WNOHANG);
    return false;
  });
  waitpid(child, nullptr, WNOHANG);
  return started ? daemonPid : -1;
}

int StopDaemon(pid_t pid, std::chrono::milliseconds timeout) {
  if (pid <= 0) return -1;
  kill(pid, SIGTERM);
  int status = -1;
  bool ended = PollUntil(timeout, [&] {
    pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid) return true;
    // Not our child (no sub-reaper): all we can see is that it is gone.
    if (r < 0 && errno == ECHILD && !ProcessAlive(pid)) {
      status = 0;
      return true;
    }
    return false;
  });
  if (!ended) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    return -1;
  }
  return status;
}

bool AppendQueueLine(std::string_view line) {
  std::string text(line);
  text += '\n';
  int fd = open(kQueueFile, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  close(fd);
  return ok;
}

bool SignalDaemon() {
  int pid = ReadPid(kDaemonPidFile);
  return pid > 0 && kill(pid, SIGUSR1) == 0;
}

CommandResult RunCommand(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv) {
  CommandResult result;
  if (argv.empty()) return result;
  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) return result;
  std::vector<std::string> args = argv;
  std::vector<std::string> env = MergedEnvironment(extraEnv);
  pid_t child = fork();
  if (child < 0) {
    close(pipeFds[0]);
    close(pipeFds[1]);
    return result;
  }
  if (child == 0) {
    dup2(pipeFds[1], 1);
    dup2(pipeFds[1], 2);
    int devnull = open("/dev/null", O_RDONLY);
    if (devnull >= 0) dup2(devnull, 0);
    auto a = Pointers(args);
    auto e = Pointers(env);
    execvpe(a[0], a.data(), e.data());
    _exit(127);
  }
  close(pipeFds[1]);
  char buffer[4096];
  ssize_t n;
  while ((n = read(pipeFds[0], buffer, sizeof buffer)) != 0) {
    if (n < 0) {
      if (errno == EINTR) continue;
      break;
    }
    result.output.append(buffer, n);
  }
  close(pipeFds[0]);
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  result.status = status;
  return result;
}

std::vector<std::vector<std::string>> QuerySqlite(const std::string& dbFile, const std::string& sql) {
  std::vector<std::vector<std::string>> rows;
  sqlite3* raw = nullptr;
  int rc = sqlite3_open_v2(dbFile.c_str(), &raw, SQLITE_OPEN_READONLY, nullptr);
  std::unique_ptr<sqlite3, SqliteCloser> db(raw);
  if (rc != SQLITE_OK) return {{std::string("error: ") + (raw ? sqlite3_errmsg(raw) : "cannot open")}};
  sqlite3_busy_timeout(db.get(), 5000);
  sqlite3_stmt* rawStatement = nullptr;
  if (sqlite3_prepare_v2(db.get(), sql.c_str(), -1, &rawStatement, nullptr) != SQLITE_OK)
    return {{std::string("error: ") + sqlite3_errmsg(db.get())}};
  std::unique_ptr<sqlite3_stmt, StatementCloser> statement(rawStatement);
  while ((rc = sqlite3_step(statement.get())) == SQLITE_ROW) {
    std::vector<std::string> row;
    for (int i = 0; i < sqlite3_column_count(statement.get()); ++i) {
      const unsigned char* text = sqlite3_column_text(statement.get(), i);
      row.emplace_back(text ? reinterpret_cast<const char*>(text) : "",
                       static_cast<size_t>(sqlite3_column_bytes(statement.get(), i)));
    }
    rows.push_back(std::move(row));
  }
  if (rc != SQLITE_DONE) return {{std::string("error: ") + sqlite3_errmsg(db.get())}};
  return rows;
}

}  // namespace orvo::test
