#include "tools/client.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <vector>

#include "daemon/daemon.h"
#include "daemon/queue.h"
#include "platform/failure_record.h"
#include "platform/run_status.h"
#include "platform/system.h"
#include "tools/status_report.h"

const ClientPaths kClientPaths{kIndexingQueuePath, kIndexingBatchPath, kDaemonPidFile, kRunStatusPath,
                               kFailureRecordPath};

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
    "  status [--watch] [--json]\n"
    "                      show whether the daemon runs, whether work is waiting,\n"
    "                      the progress of the run under way and the last run\n"
    "  failures [--json]   list the files that could not be indexed or saved\n"
    "\n"
    "Paths are absolute. 'orvoindex COMMAND --help' describes one command.\n"
    "Exit status: 0 done, 1 the queue could not be written, 2 bad arguments,\n"
    "3 queued but the daemon is not running (status: it is not running).\n";

struct Subcommand {
  std::string_view name;
  char letter;     // queue command letter; 0 for the reports
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
     "photo database,\nany other word all three shares in the media database.\n"
     "With reindex=incremental in /etc/orvoindex.conf, a media share keeps the rows of\n"
     "unchanged files and is never emptied first.\n"},
    {"refresh-photos", 'U', 0, false,
     "usage: orvoindex refresh-photos\nRefreshes the photo database from the photo share.\n"},
    {"truncate", 'T', 1, false,
     "usage: orvoindex truncate TABLE\nEmpties one media table: music, video, photo, playlist or "
     "directory.\n"},
    {"status", 0, 0, false,
     "usage: orvoindex status [--watch] [--json]\n"
     "Shows whether the daemon runs, its pid, whether a batch waits or runs, the run\n"
     "under way (queue lines done of the batch's, files indexed, removed and failed,\n"
     "the file being handled, files per second, time elapsed and, once no folder\n"
     "walk is left in the batch, the time left) and the last run (when, how long,\n"
     "lines, files, failures). The daemon publishes this about once a second in\n"
     "/var/run/orvoindexd.status.\n"
     "  --watch  redraw every second until no work is left: a progress bar on a\n"
     "           terminal, else one line per update and the report at the end\n"
     "  --json   print it as one JSON object (with --watch, one per update and line)\n"
     "Exit status 3 when the daemon is not running.\n"},
    {"failures", 0, 0, false,
     "usage: orvoindex failures [--json]\n"
     "Lists the files the daemon could not index or save, newest first, each once with\n"
     "the time and the message it logged for it. The daemon keeps the last 1000 in\n"
     "/var/lib/orvoindex/failures, across restarts.\n"
     "  --json   print them as one JSON object\n"},
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

StatusSnapshot TakeSnapshot(const ClientPaths& paths) {
  StatusSnapshot snapshot;
  snapshot.daemonPid = LiveDaemonPid(paths.daemonPidFile);
  snapshot.queueWaiting = Exists(paths.queue);
  snapshot.batchPresent = Exists(paths.batch);
  snapshot.hasStatus = ReadRunStatus(paths.runStatus, &snapshot.status);
  return snapshot;
}

int ReportStatus(const ClientPaths& paths, bool json, FILE* out) {
  const StatusSnapshot snapshot = TakeSnapshot(paths);
  fputs(json ? (StatusJson(snapshot) + "\n").c_str() : StatusText(snapshot).c_str(), out);
  return snapshot.daemonPid > 0 ? kExitOk : kExitNoDaemon;
}

int TerminalColumns(FILE* out) {
  winsize size = {};
  return ioctl(fileno(out), TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

// Redraws the status every second until the daemon has no work left (no
// run, no queue, no batch) or is gone. On a terminal the report is drawn
// over itself with a progress bar; elsewhere a line is added for each new
// update the daemon publishes, and the whole report closes the watch.
int WatchStatus(const ClientPaths& paths, bool json, FILE* out) {
  const bool terminal = !json && isatty(fileno(out));
  int drawnLines = 0;
  int64_t shownUpdate = -1;
  for (;;) {
    const StatusSnapshot snapshot = TakeSnapshot(paths);
    const RunState state = StateOf(snapshot);
    const bool done = snapshot.daemonPid <= 0 ||
                      (state != RunState::kRunning && !snapshot.queueWaiting && !snapshot.batchPresent);
    const bool fresh = snapshot.status.updated != shownUpdate;
    shownUpdate = snapshot.status.updated;
    if (json) {
      if (fresh || done) fputs((StatusJson(snapshot) + "\n").c_str(), out);
    } else if (terminal) {
      if (drawnLines > 0) fprintf(out, "\033[%dA\033[J", drawnLines);
      const std::string frame = ProgressFrame(snapshot, TerminalColumns(out));
      drawnLines = static_cast<int>(std::count(frame.begin(), frame.end(), '\n'));
      fputs(frame.c_str(), out);
    } else if (done) {
      fputs(StatusText(snapshot).c_str(), out);
    } else if (fresh && state == RunState::kRunning) {
      fputs(ProgressLine(snapshot).c_str(), out);
    }
    fflush(out);
    if (done) return snapshot.daemonPid > 0 ? kExitOk : kExitNoDaemon;
    sleep(1);
  }
}

int ReportFailures(const ClientPaths& paths, bool json, FILE* out) {
  const std::vector<FailureEntry> failures = ReadFailureRecord(paths.failureRecord);
  fputs(json ? (FailuresJson(failures) + "\n").c_str() : FailuresText(failures).c_str(), out);
  return kExitOk;
}

// The options of status and failures.
ClientRequest ParseReportArgs(const Subcommand& sub, int argc, const char* const* argv) {
  ClientRequest request{sub.name == "status" ? ClientAction::kStatus : ClientAction::kFailures, {}};
  for (int i = 2; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg == "--json") {
      request.json = true;
    } else if (arg == "--watch" && request.action == ClientAction::kStatus) {
      request.watch = true;
    } else {
      return UsageError(std::string(sub.name) + ": unknown option '" + std::string(arg) + "'\n" + sub.help);
    }
  }
  return request;
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
  if (sub->letter == 0) return ParseReportArgs(*sub, argc, argv);
  if (argc - 2 != sub->arguments) {
    return UsageError(std::string(sub->name) + " takes " + std::to_string(sub->arguments) +
                      " argument(s), got " + std::to_string(argc - 2) + "\n" + sub->help);
  }
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
      return request.watch ? WatchStatus(paths, request.json, out) : ReportStatus(paths, request.json, out);
    case ClientAction::kFailures:
      return ReportFailures(paths, request.json, out);
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
