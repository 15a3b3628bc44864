// What `orvoindex status` and `orvoindex failures` print: for people, and
// as JSON for programs.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/failure_record.h"
#include "platform/run_status.h"

// What the client sees at one moment.
struct StatusSnapshot {
  int daemonPid = 0;  // 0: no daemon runs
  bool queueWaiting = false;
  bool batchPresent = false;
  bool hasStatus = false;  // the daemon's status file was there and readable
  RunStatus status;
};

// The run the snapshot shows, by what the daemon published and whether it
// still runs.
enum class RunState {
  kRunning,      // a queue run goes
  kIdle,         // the daemon waits for work
  kInterrupted,  // the daemon stopped in the middle of a run; the batch runs again at its next start
  kStopped,      // no daemon, and it stopped between runs
  kUnknown,      // a daemon runs but published nothing
};
RunState StateOf(const StatusSnapshot& snapshot);

// The plain report: "daemon:", "queue:" and "batch:" lines, then the run
// under way and the last run.
std::string StatusText(const StatusSnapshot& snapshot);

// The same as one JSON object, without a newline.
std::string StatusJson(const StatusSnapshot& snapshot);

// One line for a log of the run's progress (`status --watch` off a terminal).
std::string ProgressLine(const StatusSnapshot& snapshot);

// The report with a progress bar, each line at most `columns` wide (`status
// --watch` on a terminal).
std::string ProgressFrame(const StatusSnapshot& snapshot, int columns);

// The failure list: two lines per file (time and path, then the reason), or
// one line saying there is none.
std::string FailuresText(const std::vector<FailureEntry>& failures);
std::string FailuresJson(const std::vector<FailureEntry>& failures);

// `text` as a JSON string, quotes included. Bytes that are not UTF-8 (a
// path may hold any) are taken as Latin-1, as the databases take tag text.
std::string JsonString(std::string_view text);
