#include "daemon/queue.h"

#include <fcntl.h>
#include <signal.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <memory>
#include <thread>

#include "daemon/flags.h"
#include "index/handler_table.h"
#include "index/index.h"
#include "index/run_progress.h"
#include "photo/photo_index.h"
#include "photo/photo_share.h"
#include "platform/features.h"
#include "platform/log.h"
#include "platform/media_db.h"
#include "platform/orvodb.h"
#include "platform/photo_db.h"
#include "platform/share_paths.h"
#include "platform/system.h"

namespace {

constexpr int kRenameAttempts = 16;
constexpr size_t kLinkSize = 4096;

// The photo gate of the queue commands: photo upkeep only for paths in the
// photo share, and only when the appliance has the photo application.
bool PassesPhotoGate(const char* path) { return IsPhotoSharePath(path) == 1 && gSupportPhoto == 1; }

void RenamePaths(const char* newPath, const char* oldPath) {
  if (IsDirExist(newPath)) {
    IndexFolder(oldPath, kFolderDelete, kIndexMediaDb);
    IndexFolder(newPath, kFolderAdd, kIndexMediaDb);
    if (!PassesPhotoGate(newPath)) return;
    ORVOPhotoRenamePath(newPath, oldPath, 1);
    ORVOPhotoShareRename(newPath, oldPath);
    // The video application only knows files of the photo share, so its
    // renames stay behind the photo gate on purpose.
    if (gSupportCinedock == 1) {
      ORVOVideoRenamePath(1, newPath, oldPath);
      ORVOVideoRenamePath(2, newPath, oldPath);
    }
    return;
  }
  IndexFile(oldPath, kIndexRemove);
  IndexFile(newPath, kIndexAdd);
  if (!PassesPhotoGate(newPath)) return;
  ORVOPhotoRenamePath(newPath, oldPath, 0);
  if (gSupportCinedock == 1 && IsVideoExtension(newPath) == 1) {
    ORVOVideoRenamePath(1, newPath, oldPath);
    ORVOVideoRenamePath(2, newPath, oldPath);
  }
}

void ReindexShareWord(const char* word) {
  // Case matters: "Photo" is not the photo share's word and re-indexes all
  // three shares into the media database.
  if (strcmp(word, "photo") == 0) {
    CheckPhotoShareFs();
    ORVOPhotoSweep(nullptr);
    PhotoDBVacuum();
    ORVOPhotoShareSync(nullptr);
  } else if (strcmp(word, "music") == 0) {
    IndexFolder(nullptr, kFolderReindexShares, kIndexMusicShareOnly);
  } else {
    IndexFolder(nullptr, kFolderReindexShares, kIndexMediaDb);
  }
}

void RefreshPhotoShare(const char* word) {
  if (strcmp(word, "photo") != 0) return;
  char target[kLinkSize];
  memset(target, 0, sizeof target);
  if (readlink(kPhotoShareLink, target, sizeof target - 1) == -1) {
    ORVO_LOG("%s (%d) Failed to read link of %s", kPhotoShareLink);
    return;
  }
  CheckPhotoShareFs();
  IndexFolder(target, kFolderRefresh, kIndexPhotoDb);
}

// --- the spool: only regular files are run ---

const char* KindOf(mode_t mode) {
  if (S_ISDIR(mode)) return "a directory";
  if (S_ISFIFO(mode)) return "a FIFO";
  if (S_ISLNK(mode)) return "a symbolic link";
  if (S_ISSOCK(mode)) return "a socket";
  if (S_ISCHR(mode)) return "a character device";
  if (S_ISBLK(mode)) return "a block device";
  return "not a file";
}

// A spool entry that is not a regular file (a FIFO would block the run, a
// link to a device never end it, a directory at the batch path hold up every
// later run) is renamed "<path>.not-a-file.<time>" for the administrator.
// Deliberate departure: set aside with one log line instead of read, or removed with "rm -rf".
void SetAside(const char* path, mode_t mode) {
  char aside[kQueueLineSize];
  const long long now = static_cast<long long>(time(nullptr));
  for (int n = 0; n < 10; ++n) {
    if (n == 0) snprintf(aside, sizeof aside, "%s.not-a-file.%lld", path, now);
    else snprintf(aside, sizeof aside, "%s.not-a-file.%lld-%d", path, now, n);
    int rc = renameat2(AT_FDCWD, path, AT_FDCWD, aside, RENAME_NOREPLACE);
    if (rc != 0 && errno == EINVAL) {
      // A file system without RENAME_NOREPLACE: look first.
      struct stat st;
      if (lstat(aside, &st) == 0) continue;
      rc = rename(path, aside);
    }
    if (rc == 0) {
      ORVO_LOG("%s (%d) %s is %s, not a regular file: moved it aside to %s", path, KindOf(mode), aside);
      return;
    }
    if (errno != EEXIST) break;
  }
  ORVO_LOG("%s (%d) %s is %s, not a regular file, and cannot be moved aside (%s)", path, KindOf(mode),
           strerror(errno));
}

// Opens a spool file for reading when it is a regular file, without
// following a link and without waiting on a FIFO. Anything else is moved
// aside (*setAside) and -1 returned; -1 with errno when it cannot be opened.
int OpenSpoolFile(const char* path, bool* setAside) {
  *setAside = false;
  struct stat st;
  if (lstat(path, &st) != 0) return -1;
  int fd = S_ISREG(st.st_mode) ? open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC) : -1;
  if (fd >= 0 && fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) return fd;
  if (fd < 0 && S_ISREG(st.st_mode) && errno != ELOOP) return -1;  // a file we may not read
  // Not a file, or replaced by something else between the two looks.
  if (fd >= 0) close(fd);
  else if (lstat(path, &st) != 0) return -1;
  SetAside(path, st.st_mode);
  *setAside = true;
  return -1;
}

// The batch to run: the one left over from an earlier run, else the queue
// taken over by renaming it. -1 when there is none (logged as the queue's
// rules say, or in the one line of a spool entry moved aside).
int OpenBatch(const QueueFiles& files) {
  bool setAside = false;
  int fd = OpenSpoolFile(files.batch, &setAside);
  if (fd >= 0) return fd;
  if (setAside || errno == ENOENT) {
    struct stat st;
    if (lstat(files.queue, &st) == 0 && !S_ISREG(st.st_mode)) {
      SetAside(files.queue, st.st_mode);
      return -1;
    }
    for (int attempt = 0; attempt < kRenameAttempts; ++attempt) {
      if (rename(files.queue, files.batch) == 0) break;
      ORVO_LOG("%s(%d): Failed to rename %s. (%s)", files.queue, strerror(errno));
    }
    fd = OpenSpoolFile(files.batch, &setAside);
    if (fd >= 0 || setAside) return fd;
  }
  const int openError = errno;
  // An unreadable batch would block every later run; clear it away. Its
  // own failure adds nothing to the message below.
  [[maybe_unused]] const int removed = system(files.removeBatchCommand);
  ORVO_LOG("%s(%d): Failed to open %s. (%s)", files.batch, strerror(openError));
  return -1;
}

struct FdCloser {
  int fd;
  ~FdCloser() {
    if (fd >= 0) close(fd);
  }
};

// --- other programs that still have the batch open ---

// A write lease on the batch: the kernel grants one only while no other
// process has the file open, and holds up another's open until it is
// released. Needs the file's owner or CAP_LEASE (the daemon runs as root).
class WriteLease {
 public:
  ~WriteLease() { Release(); }
  // 1 when granted, 0 while another process has the file open, -1 when
  // leases cannot be had here.
  int Take(int fd) {
    // An open by another process while the lease is held would send SIGIO,
    // which ends a process that does not ignore it.
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGIO, &ignore, &savedSigio_);
    if (fcntl(fd, F_SETLEASE, F_WRLCK) == 0) {
      fd_ = fd;
      return 1;
    }
    const int error = errno;
    sigaction(SIGIO, &savedSigio_, nullptr);
    errno = error;
    return error == EAGAIN || error == EBUSY ? 0 : -1;
  }
  void Release() {
    if (fd_ < 0) return;
    fcntl(fd_, F_SETLEASE, F_UNLCK);
    sigaction(SIGIO, &savedSigio_, nullptr);
    fd_ = -1;
  }
  // True when another process has begun to open the file since the lease
  // was granted: its open waits for the release, and then it has the file.
  bool Broken() const { return fd_ >= 0 && fcntl(fd_, F_GETLEASE) != F_WRLCK; }

 private:
  int fd_ = -1;
  struct sigaction savedSigio_ = {};
};

// --- one run over a batch ---

// Where a line of the batch starts, and the number of the last statement
// its work made (orvodb.h), to find the first line whose work a database
// failure lost.
struct LineMark {
  off_t offset;
  uint64_t last;
};

struct BatchRun {
  BatchRun(int fd, off_t start, QueueExecutor execute, void* context)
      : fd(fd), start(start), execute(execute), context(context), reader(fd, start) {}
  int fd;
  off_t start;
  QueueExecutor execute;
  void* context;
  QueueLineReader reader;
  std::deque<LineMark> lines;  // the lines whose work may not be committed yet
  uint64_t doneUpTo = 0;       // statements up to this number belong to lines dropped from `lines`
  std::unique_ptr<char[]> line = std::make_unique<char[]>(kQueueLineSize);
};

// Runs the complete lines the batch holds now (and an unfinished last one
// when `takeUnfinished`). Stops after a line whose work a database failure
// lost; returns true then.
bool RunLines(BatchRun* run, bool takeUnfinished) {
  struct stat st;
  if (fstat(run->fd, &st) != 0) return false;
  // What a writer appends meanwhile waits for the next call: the loop ends.
  run->reader.SetLimit(st.st_size);
  char* line = run->line.get();
  while (true) {
    const off_t offset = run->reader.Offset();
    const size_t length = run->reader.Next(line, takeUnfinished);
    if (length == 0) return false;
    run->lines.push_back({offset, ORVODBLastNumber()});
    NoteQueueLine(line);
    QueueCommand command;
    switch (ParseQueueLine(line, length, &command)) {
      case QueueLineStatus::kBadFormat:
        ORVO_LOG("%s (%d) Bad format [%s].", line);
        break;
      case QueueLineStatus::kCommandNoNewline:
        ORVO_LOG("%s (%d) Warning! No new line here.");
        run->execute(command, line, run->context);
        break;
      case QueueLineStatus::kCommand:
        run->execute(command, line, run->context);
        break;
    }
    run->lines.back().last = ORVODBLastNumber();
    if (ORVODBRunLoss().from != 0) return true;
    const uint64_t uncommitted = ORVODBFirstUncommitted();
    while (run->lines.size() > 1 && run->lines.front().last < uncommitted) {
      run->doneUpTo = run->lines.front().last;
      run->lines.pop_front();
    }
  }
}

// The offset of the first line whose work may be lost from statement `from` on.
off_t ResumeOffset(const BatchRun& run, uint64_t from) {
  if (from <= run.doneUpTo) return run.start;  // a line already dropped from the marks
  for (const LineMark& mark : run.lines) {
    if (mark.last >= from) return mark.offset;
  }
  return run.reader.Offset();
}

// After the last line: waits, up to `wait`, for other programs that still
// have the batch open to close it, running what they append. True once none
// has it open (the lease is then held, or leases cannot be had here); false
// when the wait ran out or a database failure stopped the run.
bool FollowWriters(BatchRun* run, std::chrono::milliseconds wait, WriteLease* lease) {
  constexpr std::chrono::milliseconds kPause{50};
  const auto deadline = std::chrono::steady_clock::now() + wait;
  for (int round = 0; round <= wait / kPause + 1; ++round) {
    const int taken = lease->Take(run->fd);
    if (taken != 0) {
      if (taken < 0) {
        static bool said = false;  // once per process
        if (!said) {
          ORVO_LOG("%s (%d) Cannot take a lease on the batch (%s): lines a program still writes into it may be lost",
                   strerror(errno));
        }
        said = true;
      }
      // Nobody writes any more: an unfinished last line is the last line.
      return !RunLines(run, true);
    }
    if (RunLines(run, false)) return false;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(kPause);
  }
  return false;
}

// The offset a run goes on from: where the kept batch stopped, when it is
// still the same file.
off_t StartOffset(int fd, KeptBatch* kept) {
  struct stat st;
  if (kept->reason != KeptBatch::kNone && fstat(fd, &st) == 0 && st.st_dev == kept->device &&
      st.st_ino == kept->inode && st.st_size >= kept->offset)
    return kept->offset;
  *kept = KeptBatch();
  return 0;
}

void Keep(KeptBatch* kept, int fd, KeptBatch::Reason reason, off_t offset) {
  struct stat st;
  if (fstat(fd, &st) == 0) {
    kept->device = st.st_dev;
    kept->inode = st.st_ino;
  }
  kept->reason = reason;
  kept->offset = offset;
  if (reason == KeptBatch::kWriter) kept->retries = 0;
  else ++kept->retries;
}

const char* DatabaseName(OrvoDatabase which) { return which == OrvoDatabase::kMedia ? "media" : "photo"; }

// What the daemon's runs keep between them. Main thread only.
KeptBatch gKeptBatch;

}  // namespace

QueueLineStatus ParseQueueLine(char* line, size_t length, QueueCommand* command) {
  // The line is a C string: it ends at an embedded NUL, and so does the test
  // for its newline (a NUL before the newline gives the warning).
  size_t textLength = strnlen(line, length);
  const bool hasNewline = textLength > 0 && line[textLength - 1] == '\n';
  if (textLength < 2 || line[1] != ':') return QueueLineStatus::kBadFormat;
  if (hasNewline) {
    line[--textLength] = '\0';
    // A line written with CR-LF would otherwise carry the CR into a path or a
    // share word ("photo\r" would re-index every share).
    if (textLength > 2 && line[textLength - 1] == '\r') line[--textLength] = '\0';
  }
  command->letter = line[0];
  command->argument = line + 2;
  return hasNewline ? QueueLineStatus::kCommand : QueueLineStatus::kCommandNoNewline;
}

int SplitRenameArgument(char* argument, const char** newPath, const char** oldPath) {
  char* save = nullptr;
  *newPath = strtok_r(argument, ":", &save);
  *oldPath = *newPath == nullptr ? nullptr : strtok_r(nullptr, ":", &save);
  return *newPath != nullptr && *oldPath != nullptr ? 0 : -1;
}

void QueueLineReader::Fill() {
  if (start_ > 0) {
    memmove(buffer_, buffer_ + start_, end_ - start_);
    base_ += static_cast<off_t>(start_);
    end_ -= start_;
    start_ = 0;
  }
  while (end_ < sizeof buffer_) {
    const off_t at = base_ + static_cast<off_t>(end_);
    if (at >= limit_) break;
    const size_t want = static_cast<size_t>(std::min<off_t>(sizeof buffer_ - end_, limit_ - at));
    const ssize_t n = pread(fd_, buffer_ + end_, want, at);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) error_ = errno;
    if (n <= 0) break;
    end_ += static_cast<size_t>(n);
  }
}

size_t QueueLineReader::Next(char* line, bool takeUnfinished) {
  constexpr size_t kMost = kQueueLineSize - 1;
  if (end_ - start_ < kMost) Fill();
  const size_t available = std::min(end_ - start_, kMost);
  const char* begin = buffer_ + start_;
  const void* newline = memchr(begin, '\n', available);
  size_t length = available;
  if (newline != nullptr) length = static_cast<const char*>(newline) - begin + 1;
  else if (available < kMost && !takeUnfinished) length = 0;
  memcpy(line, begin, length);
  line[length] = '\0';
  start_ += length;
  return length;
}

BatchOutcome RunQueueBatch(const QueueFiles& files, QueueExecutor execute, void* context,
                           KeptBatch* kept) {
  const int fd = OpenBatch(files);
  FdCloser closer{fd};
  if (fd < 0) {
    *kept = KeptBatch();
    return BatchOutcome::kNotRun;
  }
  BatchRun run(fd, StartOffset(fd, kept), execute, context);
  if (kept->reason == KeptBatch::kDatabase && ORVODBProbe(kept->database) != 0) {
    Keep(kept, fd, KeptBatch::kDatabase, kept->offset);
    ORVO_LOG("%s (%d) The %s database is still not available: %s kept (retry %d)",
             DatabaseName(kept->database), files.batch, kept->retries);
    return BatchOutcome::kKept;
  }

  ORVODBBeginRun();
  BeginBatchProgress(fd);
  run.doneUpTo = ORVODBLastNumber();
  WriteLease lease;
  const bool closed = !RunLines(&run, false) && FollowWriters(&run, files.writerWait, &lease);
  // The work before a failure is kept too. The batch goes only once its
  // work is committed and on disk, so a crash or a power cut re-runs it.
  ORVODBFlush();
  ORVODBSync();
  ORVODBEndRun();
  EndBatchProgress();

  const ORVODBLoss& loss = ORVODBRunLoss();
  if (loss.from != 0) {
    lease.Release();
    const off_t resume = ResumeOffset(run, loss.from);
    Keep(kept, fd, KeptBatch::kDatabase, resume);
    kept->database = loss.database;
    ORVO_LOG("%s (%d) The %s database is not available (%s): %s kept, to run again from byte %lld",
             DatabaseName(loss.database), loss.reason.c_str(), files.batch,
             static_cast<long long>(resume));
    return BatchOutcome::kKept;
  }
  if (run.reader.Error() != 0) {
    lease.Release();
    Keep(kept, fd, KeptBatch::kReadError, run.reader.Offset());
    ORVO_LOG("%s (%d) Failed to read %s (%s): kept, to read on from byte %lld", files.batch,
             strerror(run.reader.Error()), static_cast<long long>(run.reader.Offset()));
    return BatchOutcome::kKept;
  }
  if (!closed || lease.Broken()) {
    lease.Release();
    // Deliberate departure: kept and read on later, not deleted under a writer that still has it open.
    Keep(kept, fd, KeptBatch::kWriter, run.reader.Offset());
    ORVO_LOG("%s (%d) %s is still open in another program: kept, to read on at the next run", files.batch);
    return BatchOutcome::kFollowing;
  }
  unlink(files.batch);
  lease.Release();
  *kept = KeptBatch();
  return BatchOutcome::kFinished;
}

void ExecuteQueueCommand(const QueueCommand& command, const char* line, void*) {
  const char* path = command.argument;
  switch (command.letter) {
    case 'a':
      IndexFile(path, kIndexAdd);
      if (!PassesPhotoGate(path)) return;
      ORVOPhotoIndexUpdate(path, 1);
      if (IsDirExist(path)) ORVOPhotoShareUpdate(path, 1);
      return;
    case 'd':
      IndexFile(path, kIndexRemove);
      if (!PassesPhotoGate(path)) return;
      ORVOPhotoIndexUpdate(path, 2);
      return;
    case 'A':
      IndexFolder(path, kFolderAdd, kIndexMediaDb | kIndexPhotoDb);
      if (!PassesPhotoGate(path)) return;
      if (IsDirExist(path)) {
        CheckPhotoShareFs();
        ORVOPhotoShareAddTree(path);
      }
      return;
    case 'D':
      IndexFolder(path, kFolderDelete, kIndexMediaDb | kIndexPhotoDb);
      if (!PassesPhotoGate(path)) return;
      ORVOPhotoShareUpdate(path, 2);
      return;
    case 'N': {
      char paths[kQueueLineSize];
      snprintf(paths, sizeof paths, "%s", path);
      const char* newPath;
      const char* oldPath;
      if (SplitRenameArgument(paths, &newPath, &oldPath) != 0) {
        ORVO_LOG("%s (%d) Bad format [%s].", line);
        return;
      }
      RenamePaths(newPath, oldPath);
      return;
    }
    case 'R':
      ReindexShareWord(path);
      return;
    case 'T':
      ORVOTruncateTable(path);
      return;
    case 'U':
      RefreshPhotoShare(path);
      return;
    default:
      ORVO_LOG("%s (%d) Bad format [%s].", line);
      return;
  }
}

void ProcessIndexingQueue() {
  static const QueueFiles kFiles{kIndexingQueuePath, kIndexingBatchPath,
                                 "rm -rf /var/spool/orvo_indexing_queue.tmp"};
  const BatchOutcome outcome = RunQueueBatch(kFiles, ExecuteQueueCommand, nullptr, &gKeptBatch);
  // Deliberate departure: a run that kept its work for a database tells the music server nothing.
  if (outcome == BatchOutcome::kFinished || outcome == BatchOutcome::kFollowing) NotifyMusicServer();
}

int IndexingRetryTicks() {
  switch (gKeptBatch.reason) {
    case KeptBatch::kNone:
      return 0;
    case KeptBatch::kWriter:
      return 1;
    default:
      return 1 << std::min(std::max(gKeptBatch.retries - 1, 0), 5);
  }
}
