#include "daemon/queue.h"

#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "daemon/daemon.h"
#include "daemon/flags.h"
#include "index/handler_table.h"
#include "index/index.h"
#include "photo/photo_index.h"
#include "photo/photo_share.h"
#include "platform/log.h"
#include "platform/media_db.h"
#include "platform/orvodb.h"
#include "platform/photo_db.h"
#include "platform/system.h"

namespace {

constexpr int kRenameAttempts = 16;
constexpr size_t kLinkSize = 4096;
constexpr char kPhotoShareLink[] = "/var/services/photo";

struct FileCloser {
  void operator()(FILE* file) const { fclose(file); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

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

// Renames the queue to the batch name unless a batch is left over from an
// interrupted run; that one goes first and the new queue waits.
void TakeQueueOver(const QueueFiles& files) {
  struct stat st;
  if (stat(files.batch, &st) == 0) return;
  for (int attempt = 0; attempt < kRenameAttempts; ++attempt) {
    if (rename(files.queue, files.batch) == 0) return;
    ORVO_LOG("%s(%d): Failed to rename %s. (%s)", files.queue, strerror(errno));
  }
}

}  // namespace

int IsPhotoSharePath(const char* path) {
  if (path == nullptr || strlen(path) <= 9) return 0;
  // Only the volume's length is fixed ("/volumeN"); its name is not examined.
  if (path[8] != '/' || strncasecmp(path + 9, "photo", 5) != 0) return 0;
  return path[14] == '/' || path[14] == '\0' ? 1 : 0;
}

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

size_t QueueLineReader::Next(char* line) {
  size_t length = 0;
  while (length < kQueueLineSize - 1) {
    if (start_ == end_) {
      start_ = 0;
      end_ = fread(buffer_, 1, sizeof buffer_, file_);
      if (end_ == 0) break;
    }
    size_t take = std::min(end_ - start_, kQueueLineSize - 1 - length);
    const void* newline = memchr(buffer_ + start_, '\n', take);
    if (newline != nullptr) take = static_cast<const char*>(newline) - (buffer_ + start_) + 1;
    memcpy(line + length, buffer_ + start_, take);
    start_ += take;
    length += take;
    if (newline != nullptr) break;
  }
  line[length] = '\0';
  return length;
}

int RunQueueBatch(const QueueFiles& files, QueueExecutor execute, void* context) {
  TakeQueueOver(files);
  FilePtr batch(fopen(files.batch, "r"));
  if (!batch) {
    const int openError = errno;
    // An unreadable batch would block every later run; clear it away. Its
    // own failure adds nothing to the message below.
    [[maybe_unused]] const int removed = system(files.removeBatchCommand);
    ORVO_LOG("%s(%d): Failed to open %s. (%s)", files.batch, strerror(openError));
    return -1;
  }
  auto reader = std::make_unique<QueueLineReader>(batch.get());
  auto line = std::make_unique<char[]>(kQueueLineSize);
  while (size_t length = reader->Next(line.get())) {
    QueueCommand command;
    switch (ParseQueueLine(line.get(), length, &command)) {
      case QueueLineStatus::kBadFormat:
        ORVO_LOG("%s (%d) Bad format [%s].", line.get());
        continue;
      case QueueLineStatus::kCommandNoNewline:
        ORVO_LOG("%s (%d) Warning! No new line here.");
        break;
      case QueueLineStatus::kCommand:
        break;
    }
    execute(command, line.get(), context);
  }
  batch.reset();
  // The batch goes only once its work is committed, so a crash re-runs it.
  ORVODBFlush();
  unlink(files.batch);
  return 0;
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
  if (RunQueueBatch(kFiles, ExecuteQueueCommand, nullptr) == 0) NotifyMusicServer();
}
