// The indexing queue: other programs append one command line per event to
// /var/spool/orvo_indexing_queue and send SIGUSR1; a run takes the file over
// by renaming it to the .tmp name, executes its lines in order and deletes it.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string_view>

inline constexpr const char kIndexingQueuePath[] = "/var/spool/orvo_indexing_queue";
inline constexpr const char kIndexingBatchPath[] = "/var/spool/orvo_indexing_queue.tmp";

// Queue lines are read into buffers of this size, so a line holds at most
// kQueueLineSize - 1 bytes including its newline; longer lines come in pieces.
inline constexpr size_t kQueueLineSize = 4112;

// Runs the queue once: the leftover batch if there is one, else the queue
// taken over; then deletes the batch and tells the music server.
void ProcessIndexingQueue();

// 1 when the path is /volumeN/photo (N one character) or below it, else 0.
int IsPhotoSharePath(const char* path);

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
// cannot.
class QueueLineReader {
 public:
  explicit QueueLineReader(FILE* file) : file_(file) {}
  // Fills `line` (kQueueLineSize bytes, always NUL-terminated) with the next
  // piece. Returns its length, or 0 at end of file or on a read error.
  size_t Next(char* line);

 private:
  FILE* file_;
  char buffer_[65536];
  size_t start_ = 0;
  size_t end_ = 0;
};

// The batch files of one queue and the shell command that clears a batch
// that cannot be opened. The daemon uses the fixed paths above; tests use
// their own.
struct QueueFiles {
  const char* queue;
  const char* batch;
  const char* removeBatchCommand;
};

using QueueExecutor = void (*)(const QueueCommand& command, const char* line, void* context);

// Takes the batch over, feeds each well-formed line to `execute`, logs bad
// ones, flushes grouped writes and deletes the batch. 0 when the batch was
// opened and run (the caller then tells the music server), -1 otherwise.
int RunQueueBatch(const QueueFiles& files, QueueExecutor execute, void* context);

// Executes one command as the daemon does (the dispatcher, the photo upkeep,
// the album table). `line` is the whole line, for the bad-letter message.
void ExecuteQueueCommand(const QueueCommand& command, const char* line, void* context);
