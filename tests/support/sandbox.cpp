#include "support/sandbox.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <syslog.h>

#include <algorithm>
#include <csignal>
#include <iterator>
#include <thread>

namespace orvo::test {

namespace {

constexpr std::string_view kSyncMarker = "orvo-sandbox-sync ";

std::string EnvOr(const char* name, const char* fallback) {
  const char* value = getenv(name);
  return value != nullptr && value[0] != '\0' ? value : fallback;
}

template <typename Done>
bool PollUntil(std::chrono::milliseconds timeout, Done done, std::chrono::milliseconds interval = 20ms) {
  for (auto deadline = std::chrono::steady_clock::now() + timeout; !done(); std::this_thread::sleep_for(interval))
    if (std::chrono::steady_clock::now() >= deadline) return false;
  return true;
}

int ReadNumber(const std::string& path) {
  int n = 0;
  return std::ifstream(path) >> n ? n : 0;
}

// Forks and runs args[0] (from PATH) with `extraEnv` ("NAME=value") added or replacing; output to
// `outFd`, input /dev/null, when given.
pid_t Spawn(std::vector<std::string> args, std::vector<std::string> extraEnv, int outFd = -1) {
  // ASan refuses a preloaded library (the fast clock) ahead of its runtime unless told it is fine.
  auto set = [&](std::string_view name) {
    return std::any_of(extraEnv.begin(), extraEnv.end(), [&](auto& e) { return e.starts_with(std::string(name) + "="); });
  };
  if (const std::string options = EnvOr("ASAN_OPTIONS", ""); set("LD_PRELOAD") && !set("ASAN_OPTIONS"))
    extraEnv.push_back("ASAN_OPTIONS=" + options + (options.empty() ? "" : ":") + "verify_asan_link_order=0");
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  pid_t child = fork();
  if (child != 0) return child;
  for (auto& e : extraEnv) putenv(e.data());
  if (outFd >= 0) {
    dup2(outFd, 1), dup2(outFd, 2);
    int devnull = open("/dev/null", O_RDONLY);
    if (devnull >= 0) dup2(devnull, 0);
  }
  execvp(argv[0], argv.data());
  _exit(127);
}

// The log's lines; the sync markers only when `withMarkers`.
std::vector<std::string> ReadLogFile(bool withMarkers = false) {
  std::vector<std::string> lines;
  std::ifstream in(EnvOr("ORVO_SANDBOX_LOG", "/run/orvo-sandbox/syslog.log"));
  for (std::string line; std::getline(in, line);)
    if (withMarkers || line.find(kSyncMarker) == std::string::npos) lines.push_back(line);
  return lines;
}

int CountIn(const std::vector<std::string>& lines, std::string_view text) {
  return std::count_if(lines.begin(), lines.end(), [&](const auto& l) { return l.find(text) != std::string::npos; });
}

// One socket queues every sender's messages in order: once a marker sent now is in the file, so is all before it.
void SyncLog() {
  static int sequence = 0;
  std::string marker = std::string(kSyncMarker) + std::to_string(getpid()) + "." + std::to_string(++sequence);
  syslog(LOG_DEBUG, "%s", marker.c_str());
  PollUntil(5s, [&] { return CountIn(ReadLogFile(true), marker) > 0; }, 1ms);
}

// The daemon writes its pid file before it installs its handlers; a SIGUSR1 in between would kill it.
bool CatchesSignal(pid_t pid, int signo) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);)
    if (line.rfind("SigCgt:", 0) == 0) return (strtoull(line.c_str() + 7, nullptr, 16) >> (signo - 1)) & 1;
  return false;
}

}  // namespace

bool InSandbox() {
  struct stat st;
  const char* flag = getenv("ORVO_SANDBOX");
  return flag != nullptr && strcmp(flag, "1") == 0 && stat("/dev/log", &st) == 0 && S_ISSOCK(st.st_mode);
}

std::vector<std::string> SandboxLogLines() {
  if (InSandbox()) SyncLog();
  return ReadLogFile();
}

int SandboxLogCount(std::string_view text) { return CountIn(SandboxLogLines(), text); }

bool WaitForLog(std::string_view text, std::chrono::milliseconds timeout) {
  return PollUntil(timeout, [&] { return CountIn(ReadLogFile(), text) > 0; }) || SandboxLogCount(text) > 0;
}

int SandboxHupCount() { return ReadNumber(EnvOr("ORVO_SANDBOX_HUPS", "/run/orvo-sandbox/hups")); }

bool WaitForHups(int n, std::chrono::milliseconds timeout) {
  return PollUntil(timeout, [&] { return SandboxHupCount() >= n; });
}

bool ProcessAlive(pid_t pid) {
  if (pid <= 0 || kill(pid, 0) != 0) return false;
  // A zombie still answers kill(); it is gone for our purposes.
  std::string all = ReadFile("/proc/" + std::to_string(pid) + "/stat");
  size_t paren = all.rfind(')');
  return paren == std::string::npos || paren + 2 >= all.size() || all[paren + 2] != 'Z';
}

pid_t StartDaemon(const std::vector<std::string>& extraEnv, std::chrono::milliseconds timeout) {
  // As sub-reaper the test inherits the daemon that forks itself away, and can wait for it.
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  unlink(kDaemonPidFile);
  pid_t child = Spawn({std::string(ORVO_BINARY_DIR) + "/orvoindexd"}, extraEnv);
  if (child < 0) return -1;
  pid_t daemonPid = -1;
  bool started = PollUntil(timeout, [&] {
    int pid = ReadNumber(kDaemonPidFile);
    if (pid > 0 && ProcessAlive(pid) && CatchesSignal(pid, SIGUSR1)) daemonPid = pid;
    waitpid(child, nullptr, WNOHANG);  // the first process ends once it is a daemon
    return daemonPid > 0;
  });
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
    if (r < 0 && errno == ECHILD && !ProcessAlive(pid)) return status = 0, true;
    return false;
  });
  if (ended) return status;
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  return -1;
}

bool AppendQueueLine(std::string_view line) {
  std::string text = std::string(line) + '\n';
  int fd = open(kQueueFile, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  close(fd);
  return ok;
}

bool SignalDaemon() {
  int pid = ReadNumber(kDaemonPidFile);
  return pid > 0 && kill(pid, SIGUSR1) == 0;
}

CommandResult RunCommand(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv) {
  CommandResult result;
  int fds[2];
  if (argv.empty() || pipe2(fds, O_CLOEXEC) != 0) return result;
  pid_t child = Spawn(argv, extraEnv, fds[1]);
  close(fds[1]);
  char buffer[4096];
  for (ssize_t n; child > 0 && (n = read(fds[0], buffer, sizeof buffer)) > 0;) result.output.append(buffer, n);
  close(fds[0]);
  if (child > 0) waitpid(child, &result.status, 0);
  return result;
}

std::vector<std::vector<std::string>> QuerySqlite(const std::string& dbFile, const std::string& sql) {
  using Rows = std::vector<std::vector<std::string>>;
  sqlite3* raw = nullptr;
  int rc = sqlite3_open_v2(dbFile.c_str(), &raw, SQLITE_OPEN_READONLY, nullptr);
  std::unique_ptr<sqlite3, int (*)(sqlite3*)> db(raw, sqlite3_close);
  if (rc != SQLITE_OK) return {{std::string("error: ") + (raw ? sqlite3_errmsg(raw) : "cannot open")}};
  sqlite3_busy_timeout(db.get(), 5000);
  Rows rows;
  auto collect = [](void* out, int n, char** values, char**) {
    auto& row = static_cast<Rows*>(out)->emplace_back();
    for (int i = 0; i < n; ++i) row.emplace_back(values[i] != nullptr ? values[i] : "");
    return 0;
  };
  if (sqlite3_exec(db.get(), sql.c_str(), collect, &rows, nullptr) != SQLITE_OK)
    return {{std::string("error: ") + sqlite3_errmsg(db.get())}};
  return rows;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

bool WriteJpeg(const std::string& path) {
  fs::create_directories(fs::path(path).parent_path());
  const std::string cmd = "ffmpeg -nostdin -loglevel error -y -f lavfi -i color=c=red:s=8x8 -frames:v 1 -f mjpeg '" +
                          path + "' >/dev/null 2>&1";
  return system(cmd.c_str()) == 0;
}

void CrossLink(const std::string& share, const std::vector<std::string>& names) {
  for (const std::string& name : names) fs::create_directories(share + "/" + name);
  for (const std::string& name : names) {
    for (const std::string& other : names)
      if (other != name) fs::create_directory_symlink("../" + other, share + "/" + name + "/to_" + other);
    fs::create_directory_symlink("..", share + "/" + name + "/up");
  }
}

int MakeFolderChain(const std::string& top, size_t length, std::string* deepest) {
  *deepest = top;
  int fd = open(top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  while (fd >= 0 && deepest->size() < length) {
    const std::string name(std::min<size_t>(length - deepest->size() - 1, 200), 'd');
    const int next = mkdirat(fd, name.c_str(), 0755) == 0 ? openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1;
    close(fd);
    fd = next;
    *deepest += "/" + name;
  }
  return fd;
}

std::multiset<std::string> Column(const std::string& dbFile, const std::string& sql) {
  std::multiset<std::string> out;
  for (const auto& row : QuerySqlite(dbFile, sql)) out.insert(row.at(0));
  return out;
}

bool RunLines(const std::vector<std::string>& lines) {
  const int hups = SandboxHupCount();
  for (const auto& line : lines)
    if (!AppendQueueLine(line)) return false;
  return SignalDaemon() && WaitForHups(hups + 1);
}

pid_t StartOnQueue(const std::vector<std::string>& lines, const std::vector<std::string>& extraEnv) {
  {
    std::ofstream queue(kQueueFile, std::ios::binary);
    for (const auto& line : lines) queue << line << "\n";
  }
  std::vector<std::string> env = kFastClock;
  env.insert(env.end(), extraEnv.begin(), extraEnv.end());
  const int hups = SandboxHupCount();
  const pid_t pid = StartDaemon(env);
  return pid > 0 && WaitForHups(hups + 1) ? pid : -1;
}

void DaemonSandboxTest::StartLongRun(const std::string& prefix) {
  std::ofstream queue(kQueueFile);
  for (int i = 0; i < 20000; ++i) queue << "x:" << prefix << " " << i << "\n";
  queue.close();
  int hups = SandboxHupCount();
  ASSERT_TRUE(SignalDaemon());
  while (!fs::exists(kBatchFile) && SandboxHupCount() == hups) std::this_thread::sleep_for(1ms);
}

}  // namespace orvo::test
