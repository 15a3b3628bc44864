// The daemon's published state: a small text file of key=value lines that
// the daemon replaces whole (written beside it, then renamed over it) when
// it starts, when a queue run begins and ends, and at most about once a
// second in between. `orvoindex status` reads it; so may any program:
//
//   state=running              running: a queue run goes; idle: none
//   pid=812                    the daemon that wrote it
//   updated=1718000000         when it was written (seconds since 1970)
//   started=1717999990         the run: when it began
//   elapsed=10.2               seconds since it began
//   lines_done=3               queue lines finished, never above lines_total
//   lines_total=10             lines of the batch
//   files_indexed=1200         files handed to an index handler, failures included
//   files_removed=0            files handed to a remove handler
//   failures=2                 files that failed (see the failure record)
//   files_per_second=117.6     (files_indexed + files_removed) / elapsed
//   seconds_left=unknown       an estimate, or unknown (see run_progress.h)
//   path=/volume1/music/a.mp3  the file being handled (escaped as record_text.h says)
//   last_started=...           the last finished run: began,
//   last_finished=...            ended (seconds since 1970),
//   last_seconds=65.0            took, and its figures as above:
//   last_lines= last_files_indexed= last_files_removed= last_failures=
//
// The run's keys are there only while state=running, the last_ keys only
// once a run has finished. Readers ignore keys they do not know.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

inline constexpr const char kRunStatusPath[] = "/var/run/orvoindexd.status";

// The figures of one queue run, live or finished.
struct RunFigures {
  int64_t started = 0;   // seconds since 1970
  int64_t finished = 0;  // the same; a finished run only
  double seconds = 0;    // elapsed
  uint64_t linesDone = 0;
  uint64_t linesTotal = 0;
  uint64_t filesIndexed = 0;
  uint64_t filesRemoved = 0;
  uint64_t failures = 0;
};

struct RunStatus {
  bool running = false;
  int pid = 0;
  int64_t updated = 0;
  RunFigures run;               // while running
  double filesPerSecond = 0;    // while running
  double secondsLeft = -1;      // while running; negative: unknown
  std::string path;             // while running: the file being handled, may be empty
  bool hasLastRun = false;
  RunFigures lastRun;
};

std::string FormatRunStatus(const RunStatus& status);

// Reads what FormatRunStatus wrote. False when the text has no state line;
// a line that does not parse leaves its field at its default.
bool ParseRunStatus(std::string_view text, RunStatus* status);

// Replaces the file at `path` with the status: written to "<path>.tmp", then
// renamed over it, so a reader sees the old file or the new one, whole.
// Not synced: the file describes this boot's daemon only. 0, or -1.
int WriteRunStatus(const char* path, const RunStatus& status);

// False when the file is missing or holds no status.
bool ReadRunStatus(const char* path, RunStatus* status);
