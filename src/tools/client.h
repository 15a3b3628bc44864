// The orvoindex client: turns one subcommand into one indexing-queue line,
// appends it and wakes the daemon.
#pragma once

#include <cstdio>
#include <string>

enum class ClientAction {
  kHelp,    // print `text` to standard output, exit 0
  kQueue,   // append `text` (one line, newline included) and signal the daemon
  kStatus,  // report the daemon, the queue and the run
  kFailures,  // list the recorded failures
  kUsageError,  // print `text` to standard error, exit kExitUsage
};

struct ClientRequest {
  ClientAction action;
  std::string text;
  bool json = false;   // status, failures: print JSON
  bool watch = false;  // status: redraw until no work is left
};

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1;  // the queue could not be written
inline constexpr int kExitUsage = 2;
inline constexpr int kExitNoDaemon = 3;  // queued, but no daemon to wake

// Checks the arguments (argv[0] is the program) and builds the request.
ClientRequest ParseClientArgs(int argc, const char* const* argv);

// Where the client writes and whom it signals; the program uses the fixed
// appliance paths.
struct ClientPaths {
  const char* queue;
  const char* batch;
  const char* daemonPidFile;
  const char* runStatus;      // what the daemon publishes of its run
  const char* failureRecord;  // the files it could not index or save
};
extern const ClientPaths kClientPaths;

// Appends the line with one write() on an O_APPEND descriptor, so lines of
// concurrent writers never interleave. 0, or -1 with errno set.
int AppendQueueLine(const char* queuePath, const std::string& line);

// Runs the client; returns the exit status.
int RunClient(int argc, const char* const* argv, const ClientPaths& paths, FILE* out, FILE* err);
