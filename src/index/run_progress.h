// The progress of a queue run, published for `orvoindex status`, and the
// files that failed, recorded for `orvoindex failures`.
//
// The queue marks the batch and each of its lines; the dispatcher and the
// photo update mark each file they hand to a handler (FileWork). Per file
// that is a few additions on a plain record, a path copy and a coarse clock
// read (CLOCK_MONOTONIC_COARSE); the status file (platform/run_status.h) is
// written only once a second has passed since it last was.
//
// A file fails when a message is logged while its handler runs: the first
// one is its reason. Three notices are not failures: "Impossible error." (a
// folder name cut to the album field's width; the row is saved), "File
// exists. Skip remove it from database." (a removal skipped because the
// file is back) and "Can't get Flac comment tags" (a FLAC file without
// comments, saved with its stream figures; the handler's "Failed to parse
// music metadata." after it says no more). A deferred database write that
// fails later names its own
// row (platform/log.h, LogSubject) and counts for that path. A failed file
// goes to the failure record (platform/failure_record.h) once per handling,
// even when both its media row and its photo row failed; `orvoindex
// failures` shows each path once.
//
// Time left is estimated from queue lines, and only while no folder walk
// (A, R, U and N lines) is left in the batch: one such line may stand for
// any number of files, so until the last one is done the time left is
// unknown. After it, the rate of lines since the last walk ended (or since
// the run began) gives the estimate, once a line and a second have passed.
#pragma once

#include <cstdint>

// Turns progress on for the process (the daemon, once at start): publishes
// an idle status to `statusPath`, keeping the last run's summary from an
// earlier start, opens the failure record at `failurePath` and watches the
// log. Before it, every call below does nothing.
void StartRunProgress(const char* statusPath, const char* failurePath);

// A batch was taken over: counts its lines (read with pread, so the
// descriptor's position is left alone) and publishes at once.
void BeginBatchProgress(int batchFd);

// A line of the batch (as read, newline included) is about to be executed.
void NoteQueueLine(const char* line);

// The batch is done and committed: syncs the failure record and publishes
// the run as the last run.
void EndBatchProgress();

enum class FileWorkKind { kIndex, kRemove };

// One file handed to a handler, for as long as the handler runs. Counts the
// file (once, when the media row and then the photo row of the same path
// are handled in turn) and watches the log for its failure. Nested scopes
// belong to the outer one.
class FileWork {
 public:
  FileWork(const char* path, FileWorkKind kind);
  ~FileWork();
  FileWork(const FileWork&) = delete;
  FileWork& operator=(const FileWork&) = delete;

 private:
  const char* path_;  // null when progress is off or another FileWork is open
};

// What the time-left estimate is made from.
struct LinePace {
  uint64_t linesDone;
  uint64_t linesTotal;
  uint64_t walkLinesLeft;    // folder walks not finished, the current line included
  uint64_t linesSinceWalk;   // lines finished since the last walk ended or the run began
  double secondsSinceWalk;
};

// Seconds left, or -1 when no estimate can be made.
double EstimateSecondsLeft(const LinePace& pace);
