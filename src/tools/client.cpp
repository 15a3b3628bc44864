#include "tools/client.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "daemon/daemon.h"
#include "daemon/queue.h"
#include "platform/system.h"

const ClientPaths kClientPaths{kIndexingQueuePath, kIndexingBatchPath, kDaemonPidFile};

namespace {

constexpr char kToolHelp[] =
    "usage: orvoindex COMMAND [ARGS]\n"
    "Queues work for the indexing daemon orvoindexd and wakes it.\n"
    "\n"
    "commands:\n"
    "  add PATH            index a file, or save a folder's row\n"
    "  remove PATH         remove a file's rows\n"
    "  add-tree PATH       index a folder and everything below it\n"
    "  remove-tree PATH    remove every row at or below a folder\n"
    "  rename NEW OLD      a file or folder was renamed or moved from OLD to NEW\n"
    "  reindex SHARE       rebuild a share: music, photo, or any other word for all shares\n"
    "  refresh-photos      refresh the photo database from the photo share\n"
    "  truncate TABLE      empty a media table: music, video, photo, playlist, directory\n"
    "  status              show whether the daemon runs and whether work is waiting\n"
    "\n"
    "Paths are absolute. 'orvoindex COMMAND --help' describes one command.\n"
    "Exit status: 0 done, 1 the queue could not be written, 2 bad arguments,\n"
    "3 queued but the daemon is not running.\n";

struct Subcommand {
  std::string_view name;
  char letter;     // queue command letter; 0 for status
  int arguments;   // how many arguments it takes
  bool paths;      // the arguments are absolute paths
  const char* help;
};

constexpr Subcommand kSubcommands[] = {
    {"add", 'a', 1, true,
     "usage: orvoindex add PATH\nIndexes the file PATH, or saves the row of the folder PATH.\n"},
    {"remove", 'd', 1, true,
     "usage: orvoindex remove PATH\nRemoves the rows of the file PATH, which no longer exists.\n"},
    {"add-tree", 'A', 1, true,
     "usage: orvoindex add-tree PATH\nIndexes the folder PATH and everything below it.\n"},
    {"remove-tree", 'D', 1, true,
     "usage: orvoindex remove-tree PATH\nRemoves every row at or below the folder PATH.\n"},
    {"rename", 'N', 2, true,
     "usage: orvoindex rename NEW OLD\nThe file or folder OLD is now NEW: drops OLD's rows and "
     "indexes NEW.\nNeither path may contain ':'.\n"},
    {"reindex", 'R', 1, false,
     "usage: orvoindex reindex SHARE\nRebuilds a share: 'music' the music share, 'photo' the "
     "photo database,\nany other word all three shares in the media database.\n"},
    {"refresh-photos", 'U', 0, false,
     "usage: orvoindex refresh-photos\nRefreshes the photo database from the photo share.\n"},
    {"truncate", 'T', 1, false,
     "usage: orvoindex truncate TABLE\nEmpties one media table: music, video, photo, playlist or "
     "directory.\n"},
    {"status", 0, 0, false,
     "usage: orvoindex status\nShows whether the daemon runs, its pid, and whether a batch "
     "waits or runs.\n"},
};

constexpr std::string_view kTables[] = {"music", "video", "photo", "playlist", "directory"};

ClientRequest UsageError(std::string message) {
  return {ClientAction::kUsageError, "orvoindex: " + std::move(message) + "\n"};
}

// Empty when the argument is acceptable, else what is wrong with it.
std::string CheckArgument(const Subcommand& sub, std::string_view arg) {
  if (arg.empty()) return "empty argument";
  if (arg.find('\n') != std::string_view::npos || arg.find('\r') != std::string_view::npos)
    return "argument contains a line break: '" + std::string(arg.substr(0, arg.find_first_of("\r\n"))) + "...'";
  if (sub.paths && arg.front() != '/') return "not an absolute path: " + std::string(arg);
  // The daemon splits a rename's two paths at ':'.
  if (sub.letter == 'N' && arg.find(':') != std::string_view::npos)
    return "a renamed path cannot contain ':': " + std::string(arg);
  if (sub.letter == 'T') {
    for (std::string_view table : kTables)
      if (arg == table) return {};
    return "unknown table '" + std::string(arg) + "' (music, video, photo, playlist, directory)";
  }
  return {};
}

bool Exists(const char* path) {
  struct stat st;
  return stat(path, &st) == 0;
}

// The daemon's pid, or 0 when the pid file names no live daemon. A stale pid
// file may name a process that reused the pid; SIGUSR1 would kill it, so the
// process's name is checked where /proc tells it.
int LiveDaemonPid(const char* pidFile) {
  const int pid = QLIBReadPidFile(pidFile);
  if (pid <= 0 || kill(pid, 0) != 0) return 0;
  char commPath[64];
  snprintf(commPath, sizeof commPath, "/proc/%d/comm", pid);
  if (FILE* comm = fopen(commPath, "r")) {
    char name[32] = {};
    const bool read = fgets(name, sizeof name, comm) != nullptr;
    fclose(comm);
    if (read && strcmp(name, "orvoindexd\n") != 0) return 0;
  }
  return pid;
}

int ReportStatus(const ClientPaths& paths, FILE* out) {
  const int pid = LiveDaemonPid(paths.daemonPidFile);
  const bool running = pid > 0;
  if (running)
    fprintf(out, "daemon: running (pid %d)\n", pid);
  else
    fprintf(out, "daemon: not running\n");
  fprintf(out, "queue: %s\n", Exists(paths.queue) ? "waiting" : "empty");
  fprintf(out, "batch: %s\n", Exists(paths.batch) ? "running" : "none");
  return running ? kExitOk : kExitNoDaemon;
}

}  // namespace

ClientRequest ParseClientArgs(int argc, const char* const* argv) {
  if (argc < 2) return UsageError("missing command; try 'orvoindex --help'");
  const std::string_view name = argv[1];
  if (name == "--help" || name == "-h" || name == "help") return {ClientAction::kHelp, kToolHelp};
  const Subcommand* sub = nullptr;
  for (const Subcommand& candidate : kSubcommands)
    if (candidate.name == name) sub = &candidate;
  if (sub == nullptr) return UsageError("unknown command '" + std::string(name) + "'; try 'orvoindex --help'");
  for (int i = 2; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg == "--help" || arg == "-h") return {ClientAction::kHelp, sub->help};
  }
  if (argc - 2 != sub->arguments) {
    return UsageError(std::string(sub->name) + " takes " + std::to_string(sub->arguments) +
                      " argument(s), got " + std::to_string(argc - 2) + "\n" + sub->help);
  }
  if (sub->letter == 0) return {ClientAction::kStatus, {}};

  std::string line{sub->letter, ':'};
  if (sub->letter == 'U') line += "photo";
  for (int i = 2; i < argc; ++i) {
    const std::string problem = CheckArgument(*sub, argv[i]);
    if (!problem.empty()) return UsageError(std::string(sub->name) + ": " + problem);
    if (i > 2) line += ':';
    line += argv[i];
  }
  line += '\n';
  // A longer line would reach the daemon in pieces.
  if (line.size() > kQueueLineSize - 1)
    return UsageError(std::string(sub->name) + ": arguments too long (" + std::to_string(line.size()) +
                      " bytes; a queue line holds " + std::to_string(kQueueLineSize - 1) + ")");
  return {ClientAction::kQueue, line};
}

int AppendQueueLine(const char* queuePath, const std::string& line) {
  const int fd = open(queuePath, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return -1;
  ssize_t written;
  do {
    written = write(fd, line.data(), line.size());
  } while (written < 0 && errno == EINTR);
  const int writeError = errno;
  close(fd);
  if (written != static_cast<ssize_t>(line.size())) {
    errno = written < 0 ? writeError : EIO;
    return -1;
  }
  return 0;
}

int RunClient(int argc, const char* const* argv, const ClientPaths& paths, FILE* out, FILE* err) {
  const ClientRequest request = ParseClientArgs(argc, argv);
  switch (request.action) {
    case ClientAction::kHelp:
      fputs(request.text.c_str(), out);
      return kExitOk;
    case ClientAction::kUsageError:
      fputs(request.text.c_str(), err);
      return kExitUsage;
    case ClientAction::kStatus:
      return ReportStatus(paths, out);
    case ClientAction::kQueue:
      break;
  }
  if (AppendQueueLine(paths.queue, request.text) != 0) {
    fprintf(err, "orvoindex: cannot write %s: %s\n", paths.queue, strerror(errno));
    return kExitFailure;
  }
  const int pid = LiveDaemonPid(paths.daemonPidFile);
  if (pid <= 0 || kill(pid, SIGUSR1) != 0) {
    fprintf(err, "orvoindex: the daemon is not running; the command is queued in %s for its next start\n",
            paths.queue);
    return kExitNoDaemon;
  }
  return kExitOk;
}
