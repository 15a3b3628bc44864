#include "index/index.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <deque>
#include <memory>
#include <string>

#include "index/folder_visits.h"
#include "index/handler_table.h"
#include "index/reindex.h"
#include "index/run_progress.h"
#include "photo/photo_index.h"  // the one upward include: the walk applies the photo update
#include "platform/fd_owner.h"
#include "platform/features.h"
#include "platform/log.h"
#include "platform/media_db.h"
#include "platform/photo_db.h"
#include "platform/read_advice.h"
#include "platform/share_paths.h"
#include "platform/system.h"

namespace {

constexpr size_t kPathSize = 4096;

// How many entries of a folder the walk lists ahead of the one it indexes.
// Each regular file entering that window has its handler's read span asked
// for, so on a cold cache the disk reads the next files while this one is
// parsed instead of each reader waiting for its own reads in turn.
constexpr size_t kListedAhead = 8;

const char* const kShareLinks[] = {kMusicShareLink, kVideoShareLink, kPhotoShareLink};

struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};
using DirPtr = std::unique_ptr<DIR, DirCloser>;

// The file steps of IndexFile once the path is known not to be a directory.
int IndexNonDirectory(const char* path, int mode) {
  const MediaHandlerRow* row = FindMediaHandler(path);
  if (row == nullptr) return -1;
  if (mode == kIndexAdd) {
    const char* slash = strrchr(path, '/');
    if (slash == nullptr) return 0;
    // "._name" files are the resource-fork companions some clients write
    // beside each file; they are never media.
    if (slash[1] == '.' && slash[2] == '_') return 0;
    FileWork work(path, FileWorkKind::kIndex);
    row->index(path);
    return 0;
  }
  FileWork work(path, FileWorkKind::kRemove);
  row->remove(path);
  return 0;
}

void IndexWalkedFile(const char* file, int operation, int type, bool knownRegular) {
  if (type & kIndexMediaDb) {
    if (knownRegular && (operation == kIndexAdd || operation == kIndexRemove)) {
      IndexNonDirectory(file, operation);
    } else {
      IndexFile(file, operation);
    }
  }
  if ((type & kIndexPhotoDb) && gSupportPhoto == 1 && IsPhotoSharePath(file) == 1) {
    ORVOPhotoIndexUpdate(file, operation);
  }
}

void WalkFolder(const char* path, int operation, int type, FolderVisits& visits);

// One directory entry of a walk. The entry type from readdir saves the two
// path lookups for plain files and folders; links, unknown types and cut
// paths go through the platform's tests, which follow links.
void WalkEntry(const char* child, unsigned char entryType, int operation, int type,
               FolderVisits& visits) {
  if (entryType == DT_DIR) {
    WalkFolder(child, operation, type, visits);
  } else if (entryType == DT_REG) {
    IndexWalkedFile(child, operation, type, true);
  } else if (IsDirExist(child)) {
    // Deliberate departure: a link to a folder of the same share is not followed, so no row gets a second path.
    if (!IsLinkWithinShare(visits, child)) WalkFolder(child, operation, type, visits);
  } else if (IsFileExist(child, nullptr)) {
    IndexWalkedFile(child, operation, type, false);
  }
}

// Asks the disk, without waiting, for what the file's index handler will
// read first (its row's read span). Advice only: the handler opens and reads
// the file itself as it always did. Returns false, having asked nothing, when
// the file's first page is in the page cache already: the folder was read
// recently, and advice for its other files would only cost system calls.
bool AskForReadSpan(const char* path) {
  const MediaHandlerRow* row = FindMediaHandler(path);
  if (row == nullptr || (row->head_kib == 0 && row->tail_kib == 0)) return true;
  FdOwner fd(open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (fd.get() < 0) return true;
  if (PageCached(fd.get())) return false;
  if (row->head_kib > 0) AdviseWillRead(fd.get(), 0, off_t{row->head_kib} * 1024);
  struct stat st;
  if (row->tail_kib > 0 && fstat(fd.get(), &st) == 0 && st.st_size > 0) {
    const off_t tail = std::min<off_t>(st.st_size, off_t{row->tail_kib} * 1024);
    AdviseWillRead(fd.get(), st.st_size - tail, tail);
  }
  return true;
}

struct ListedEntry {
  std::string path;
  unsigned char type;
};

void WalkFolder(const char* path, int operation, int type, FolderVisits& visits) {
  if (IsInRecycleBin(path)) return;
  DirPtr dir(opendir(path));
  if (!dir) {
    ORVO_LOG("%s (%d) Failed to open directory %s ", path);
    return;
  }
  // Deliberate departure: a folder is entered once per walk, however many links or cut paths lead to it.
  struct stat st;
  if (fstat(dirfd(dir.get()), &st) != 0 || !FirstVisit(visits, st.st_dev, st.st_ino)) return;

  if (type & kIndexMediaDb) IndexFile(path, operation);

  // Until a file of the folder turns out to be in the page cache already;
  // from then on the folder's readers give no advice either.
  bool askAhead = (type & kIndexMediaDb) && operation == kIndexAdd;
  bool cached = false;
  // On the heap: a deep tree would otherwise need 4 KiB of stack per level.
  auto child = std::make_unique<char[]>(kPathSize);
  memset(child.get(), 0, kPathSize);
  // The entries are indexed in the order readdir gives them, kListedAhead behind it.
  std::deque<ListedEntry> listed;
  bool more = true;
  auto listAhead = [&] {
    while (more && listed.size() < kListedAhead) {
      const dirent* entry = readdir(dir.get());
      if (entry == nullptr) {
        more = false;
        break;
      }
      const char* name = entry->d_name;
      if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0 || strcmp(name, "@eaDir") == 0) continue;
      int length = snprintf(child.get(), kPathSize, "%s/%s", path, name);
      // A cut path names some other file or none: the entry type says nothing
      // about it, so it takes the platform's tests and is usually skipped.
      bool cut = length < 0 || static_cast<size_t>(length) >= kPathSize;
      unsigned char entryType = cut ? static_cast<unsigned char>(DT_UNKNOWN) : entry->d_type;
      if (askAhead && entryType == DT_REG) cached = !(askAhead = AskForReadSpan(child.get()));
      listed.push_back({child.get(), entryType});
    }
  };
  // Bounded by the folder's entries: each pass takes one off the list.
  for (listAhead(); !listed.empty(); listAhead()) {
    const ListedEntry next = std::move(listed.front());
    listed.pop_front();
    ReadAdviceWanted() = !cached;  // a subfolder's walk sets its own
    WalkEntry(next.path.c_str(), next.type, operation, type, visits);
  }
  ReadAdviceWanted() = true;
}

// False, with the reason logged, when the share's folder cannot be listed:
// its volume is not mounted, or the folder is gone.
bool ShareFolderOpens(const char* folder) {
  int error = FolderOpenError(folder);
  if (error == 0) return true;
  ORVO_LOG("%s (%d) Cannot open share folder %s (%s); its rows are kept.", folder, strerror(error));
  return false;
}

// Empties a share and indexes it again from its real directory.
void ReindexShare(const char* link) {
  char target[kPathSize];
  memset(target, 0, sizeof target);
  // One byte short of the buffer so the target always stays NUL-terminated.
  if (readlink(link, target, sizeof target - 1) == -1) return;
  // Deliberate departure: a share whose folder cannot be opened keeps its rows instead of being emptied.
  if (!ShareFolderOpens(target)) return;
  MediaInfoDBDelete(5, target);
  IndexFolder(target, kFolderAdd, kIndexMediaDb);
}

}  // namespace

int IndexFile(const char* path, int mode) {
  if (path == nullptr || (mode != kIndexAdd && mode != kIndexRemove)) {
    ORVO_LOG("%s (%d) Bad parameter.");
    return -1;
  }
  if (IsDirExist(path)) {
    // A folder's rows are removed only by IndexFolder's delete.
    if (mode == kIndexAdd) SaveDirectoryInfo(path);
    return 0;
  }
  return IndexNonDirectory(path, mode);
}

int IndexFolder(const char* path, int operation, int type) {
  if (path == nullptr && operation != kFolderReindexShares) {
    ORVO_LOG("%s (%d) Bad parameter.");
    return 0;
  }
  switch (operation) {
    case kFolderDelete:
      if (type & kIndexMediaDb) MediaInfoDBDelete(5, path);
      if ((type & kIndexPhotoDb) && IsPhotoSharePath(path) == 1 && gSupportPhoto == 1) {
        PhotoInfoDBDirDelete(path);
      }
      return 0;
    case kFolderAdd:
    case kFolderRefresh:
      if (IsDirExist(path)) {
        FolderVisits visits = StartFolderVisits(path);
        WalkFolder(path, operation, type, visits);
      } else if (IsFileExist(path, nullptr)) {
        IndexWalkedFile(path, operation, type, false);
      }
      return 0;
    case kFolderReindexShares:
      if (type != kIndexMediaDb && type != kIndexMusicShareOnly) {
        ORVO_LOG("%s (%d) index type must be ORVOINDEX_MEDIA");
        return 0;
      }
      // A deliberate departure when switched on: the shares are compared with their rows, not emptied.
      if (IncrementalReindexWanted()) {
        ReindexSharesIncrementally(type == kIndexMediaDb);
        return 0;
      }
      ReindexShare(kShareLinks[0]);
      if (type == kIndexMediaDb) {
        ReindexShare(kShareLinks[1]);
        ReindexShare(kShareLinks[2]);
      }
      return 0;
    default:
      ORVO_LOG("%s (%d) Bad parameter.");
      return 0;
  }
}
