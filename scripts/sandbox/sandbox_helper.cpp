// The two stand-ins that the appliance sandbox runs beside the daemon:
//
//   sandbox_helper syslog SOCKET LOGFILE
//       binds a datagram socket at SOCKET (the sandbox's /dev/log) and appends
//       every message it receives to LOGFILE, one per line, as received.
//   sandbox_helper music-server PIDFILE COUNTFILE
//       plays the music server: writes its pid to PIDFILE and keeps the number
//       of SIGHUPs it has received in COUNTFILE (one SIGHUP = one queue run).
//
// Both write their file first and only then announce themselves (the socket
// or the pid file appears), so the sandbox can wait for them to be ready.
// Both run until they are killed.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

// Replaces `path` in one step so a reader never sees half a file.
bool WriteFileAtomically(const std::string& path, const std::string& text) {
  std::string tmp = path + ".tmp";
  FILE* f = fopen(tmp.c_str(), "we");
  if (f == nullptr) return false;
  bool ok = fwrite(text.data(), 1, text.size(), f) == text.size();
  ok = (fclose(f) == 0) && ok;
  return ok && rename(tmp.c_str(), path.c_str()) == 0;
}

int RunSyslog(const char* socketPath, const char* logPath) {
  FILE* log = fopen(logPath, "ae");
  if (log == nullptr) {
    fprintf(stderr, "sandbox_helper: cannot open %s: %s\n", logPath, strerror(errno));
    return 1;
  }
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (fd < 0 || strlen(socketPath) >= sizeof addr.sun_path) {
    fprintf(stderr, "sandbox_helper: cannot make socket %s\n", socketPath);
    return 1;
  }
  strcpy(addr.sun_path, socketPath);
  unlink(socketPath);
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    fprintf(stderr, "sandbox_helper: cannot bind %s: %s\n", socketPath, strerror(errno));
    return 1;
  }
  chmod(socketPath, 0666);

  static char message[65536];
  for (;;) {
    ssize_t n = recv(fd, message, sizeof message - 1, 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      return 1;
    }
    // syslog() may end a datagram with a NUL or a newline; a line break
    // inside a message would split it in the log, so it becomes a blank.
    while (n > 0 && (message[n - 1] == '\0' || message[n - 1] == '\n')) --n;
    for (ssize_t i = 0; i < n; ++i)
      if (message[i] == '\n' || message[i] == '\0') message[i] = ' ';
    message[n] = '\n';
    fwrite(message, 1, n + 1, log);
    fflush(log);
  }
}

volatile sig_atomic_t gHups = 0;
void OnHup(int) { gHups = gHups + 1; }

int RunMusicServer(const char* pidPath, const char* countPath) {
  struct sigaction action{};
  action.sa_handler = OnHup;
  sigemptyset(&action.sa_mask);
  sigaction(SIGHUP, &action, nullptr);
  if (!WriteFileAtomically(countPath, "0\n") ||
      !WriteFileAtomically(pidPath, std::to_string(getpid()))) {
    fprintf(stderr, "sandbox_helper: cannot write %s or %s\n", pidPath, countPath);
    return 1;
  }
  sig_atomic_t written = 0;
  sigset_t hup, old;
  sigemptyset(&hup);
  sigaddset(&hup, SIGHUP);
  for (;;) {
    // Check and sleep with SIGHUP blocked in between, so no signal is lost
    // between the test and the wait.
    sigprocmask(SIG_BLOCK, &hup, &old);
    while (gHups == written) sigsuspend(&old);
    sigprocmask(SIG_SETMASK, &old, nullptr);
    written = gHups;
    WriteFileAtomically(countPath, std::to_string(written) + "\n");
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && strcmp(argv[1], "syslog") == 0) return RunSyslog(argv[2], argv[3]);
  if (argc == 4 && strcmp(argv[1], "music-server") == 0) return RunMusicServer(argv[2], argv[3]);
  fprintf(stderr, "usage: %s syslog SOCKET LOGFILE | music-server PIDFILE COUNTFILE\n", argv[0]);
  return 2;
}
