// The indexing queue: other programs append one command line per event to
// /var/spool/orvo_indexing_queue and send SIGUSR1; a run takes the file over
// by renaming it to the .tmp name, executes its lines in order and deletes it.
//
// A queue or batch that is not a regular file is moved aside (".not-a-file."
// and the time added to its name). A batch is deleted only once its work is
// committed and on disk and no other program has it open; a run that a
// database failure stopped keeps the batch and the next runs go on from the
// first line whose work was lost.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string_view>

#include "platform/orvodb.h"

inline constexpr const char kIndexingQueuePath[] = "/var/spool/orvo_indexing_queue";
inline constexpr const char kIndexingBatchPath[] = "/var/spool/orvo_indexing_queue.tmp";

// Queue lines are read into buffers of this size, so a line holds at most
// kQueueLineSize - 1 bytes including its newline; longer lines come in pieces.
inline constexpr size_t kQueueLineSize = 4112;

// Runs the queue once: the leftover batch if there is one, else the queue
// taken over; then deletes the batch and tells the music server.
void ProcessIndexingQueue();

// 0 when no batch is kept; else how many ticks of the main loop to wait after
// the run that kept it before running again without a signal: one while
// another program still writes into the batch, doubling from one to 32
// while a database stays unavailable.
int IndexingRetryTicks();

// One line as the queue holds it. `letter` and `argument` point into the
// caller's line; `argument` is NUL-terminated there.
struct QueueCommand {
  char letter;
  const char* argument;
};

enum class QueueLineStatus {
  kCommand,         // a well-formed line (its newline removed)
  kCommandNoNewline,  // well formed, but the piece did not end in a newline
  kBadFormat,       // byte 1 is not ':'
};

// Parses one piece read from the queue (`length` bytes as read, its newline
// still in it, NUL-terminated after them). The line is the text up to its
// first NUL, as a C string; when that text ends in a newline, the newline
// (and a CR before it) is stripped in place, otherwise the status says so.
QueueLineStatus ParseQueueLine(char* line, size_t length, QueueCommand* command);

// Splits the argument of N ("new:old") in place as strtok(":") does: leading
// and doubled ':' are skipped. 0 with both paths set, -1 when one is missing.
int SplitRenameArgument(char* argument, const char** newPath, const char** oldPath);

// Reads a queue file piece by piece as fgets with a kQueueLineSize buffer
// would: each piece ends after a newline or after kQueueLineSize - 1 bytes,
// NUL bytes included. It also reports the piece's length, which fgets
// cannot, and knows the offset of each piece.
class QueueLineReader {
 public:
  // Reads the file open on `fd` (not owned) from `offset` on.
  QueueLineReader(int fd, off_t offset) : fd_(fd), base_(offset) {}
  // Reads nothing at or past `limit` bytes into the file.
  void SetLimit(off_t limit) { limit_ = limit; }
  // Fills `line` (kQueueLineSize bytes, always NUL-terminated) with the next
  // piece and returns its length; 0 at the end (or the limit) or on a read
  // error. A short piece without a newline at the end is taken only when
  // `takeUnfinished`: otherwise its writer may still be writing it, and it
  // stays for a later call.
  size_t Next(char* line, bool takeUnfinished = true);
  off_t Offset() const { return base_ + static_cast<off_t>(start_); }  // of the next piece
  int Error() const { return error_; }  // the errno of a read that failed, else 0

 private:
  void Fill();

  int fd_;
  off_t base_;  // the file offset of buffer_[0]
  off_t limit_ = std::numeric_limits<off_t>::max();
  int error_ = 0;
  char buffer_[65536];
  size_t start_ = 0;
  size_t end_ = 0;
};

// How long a run waits for other programs to close the batch before it
// keeps it for a later run instead of deleting it.
inline constexpr std::chrono::milliseconds kWriterWait{5000};

// The batch files of one queue and the shell command that clears a batch
// that cannot be opened. The daemon uses the fixed paths above; tests use
// their own.
struct QueueFiles {
  const char* queue;
  const char* batch;
  const char* removeBatchCommand;
  std::chrono::milliseconds writerWait = kWriterWait;
};

// A batch that a run could not finish, and where the next run goes on.
struct KeptBatch {
  enum Reason { kNone, kDatabase, kWriter, kReadError };
  Reason reason = kNone;
  dev_t device = 0;  // which file
  ino_t inode = 0;
  off_t offset = 0;  // the lines before it are done
  OrvoDatabase database = OrvoDatabase::kMedia;  // the one not available (kDatabase)
  int retries = 0;   // runs in a row that kept it for kDatabase or kReadError
};

enum class BatchOutcome {
  kNotRun,     // no batch to run: nothing to tell the music server
  kFinished,   // run, on disk and deleted
  kFollowing,  // run, but another program still has it open: kept to read on
  kKept,       // a database was not available or a read failed: kept
};

using QueueExecutor = void (*)(const QueueCommand& command, const char* line, void* context);

// Takes the batch over (or goes on with the one `kept` names), feeds each
// well-formed line to `execute`, logs bad ones, commits and syncs the
// writes and deletes the batch once no other program has it open. Updates
// `kept`. The caller tells the music server after kFinished and kFollowing.
BatchOutcome RunQueueBatch(const QueueFiles& files, QueueExecutor execute, void* context,
                           KeptBatch* kept);

// Executes one command as the daemon does (the dispatcher, the photo upkeep,
// the album table). `line` is the whole line, for the bad-letter message.
void ExecuteQueueCommand(const QueueCommand& command, const char* line, void* context);
