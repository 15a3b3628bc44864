#include "index/reindex.h"

#include <dirent.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "index/folder_visits.h"
#include "index/index.h"
#include "platform/log.h"
#include "platform/media_info.h"
#include "platform/media_tree.h"
#include "platform/share_paths.h"
#include "platform/system.h"

namespace {

constexpr size_t kPathSize = 4096;

struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};
using DirPtr = std::unique_ptr<DIR, DirCloser>;

struct StoredFile {
  int64_t filesize;
  int64_t mtime;
  bool seen;  // the walk met the file (or folder) and its row stands
};

// Looked up by the walk's char buffer without building a string per file.
struct PathHash {
  using is_transparent = void;
  size_t operator()(std::string_view path) const { return std::hash<std::string_view>{}(path); }
};
using StoredRows = std::unordered_map<std::string, StoredFile, PathHash, std::equal_to<>>;

// One share's re-index: its rows as they were at the start, marked as the
// walk meets their files, and the folders entered so far.
struct TreeRun {
  StoredRows tables[kMediaTreeTables];
  std::unordered_set<FolderId, FolderIdHash> entered;
};

bool LoadRows(const char* folder, TreeRun* run) {
  for (int table = 0; table < kMediaTreeTables; ++table) {
    std::vector<StoredMediaRow> rows;
    if (MediaTreeLoad(table, folder, &rows) < 0) return false;
    run->tables[table].reserve(rows.size());
    for (StoredMediaRow& row : rows)
      run->tables[table].emplace(std::move(row.path), StoredFile{row.filesize, row.mtime, false});
  }
  return true;
}

// What the handlers store as a file's mtime: the seconds cut to 32 bits, and
// 0 for playlists, whose rows never carry one. A picture whose row holds its
// EXIF capture time instead never matches and is read again every time.
int64_t StoredMtimeOf(int type, const struct stat& st) {
  return type == kMediaPlaylist ? 0 : static_cast<int32_t>(st.st_mtime);
}

void VisitFile(TreeRun* run, const char* path, const struct stat& st) {
  const MediaHandlerRow* row = FindMediaHandler(path);
  if (row == nullptr) return;
  // "._name" companions are never indexed, as in IndexFile; a row of one is
  // left unmarked and goes.
  const char* slash = strrchr(path, '/');
  if (slash == nullptr || (slash[1] == '.' && slash[2] == '_')) return;
  const int type = MediaTypeOfHandler(row);
  if (type < 0) {
    row->index(path);
    for (StoredRows& rows : run->tables) {
      if (auto it = rows.find(std::string_view(path)); it != rows.end()) it->second.seen = true;
    }
    return;
  }
  StoredRows& rows = run->tables[type];
  auto it = rows.find(std::string_view(path));
  if (it != rows.end() && it->second.filesize == st.st_size && it->second.mtime == StoredMtimeOf(type, st)) {
    it->second.seen = true;
    return;
  }
  // A changed file that its handler now refuses loses its row, as it would
  // in a full re-index.
  if (row->index(path) == 0 && it != rows.end()) it->second.seen = true;
}

void VisitFolder(TreeRun* run, const char* path, const struct stat& st) {
  StoredRows& rows = run->tables[kMediaDirectoryTable];
  auto it = rows.find(std::string_view(path));
  if (it != rows.end() && it->second.mtime == static_cast<int64_t>(st.st_mtime)) {
    it->second.seen = true;
    return;
  }
  if (SaveDirectoryInfo(path) == 0 && it != rows.end()) it->second.seen = true;
}

// The walk of IndexFolder's add: recycle bin and "@eaDir" skipped, links
// followed, each folder entered once; but every file is looked at with one
// stat and handed to its handler only when its row differs.
bool WalkFolder(TreeRun* run, const char* path) {
  if (IsInRecycleBin(path)) return true;
  DirPtr dir(opendir(path));
  if (!dir) {
    ORVO_LOG("%s (%d) Failed to open directory %s ", path);
    return false;
  }
  struct stat st;
  if (fstat(dirfd(dir.get()), &st) != 0) return false;
  // Links may lead back up the tree or to a folder met already.
  if (!run->entered.insert({st.st_dev, st.st_ino}).second) return true;
  VisitFolder(run, path, st);

  // On the heap: a deep tree would otherwise need 4 KiB of stack per level.
  auto child = std::make_unique<char[]>(kPathSize);
  while (const dirent* entry = readdir(dir.get())) {
    const char* name = entry->d_name;
    if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0 || strcmp(name, "@eaDir") == 0) continue;
    const bool cut = snprintf(child.get(), kPathSize, "%s/%s", path, name) >= static_cast<int>(kPathSize);
    if (entry->d_type == DT_DIR) {
      WalkFolder(run, child.get());
      continue;
    }
    // A file no handler takes is not even looked at.
    if (entry->d_type == DT_REG && FindMediaHandler(child.get()) == nullptr) continue;
    // A path cut short names another file; it is what the handler would get.
    struct stat cs;
    if ((cut ? stat(child.get(), &cs) : fstatat(dirfd(dir.get()), name, &cs, 0)) != 0) continue;
    if (S_ISREG(cs.st_mode)) {
      VisitFile(run, child.get(), cs);
    } else if (S_ISDIR(cs.st_mode) && entry->d_type != DT_REG) {
      WalkFolder(run, child.get());
    }
  }
  return true;
}

void DeleteUnseenRows(const TreeRun& run) {
  for (int table = 0; table < kMediaTreeTables; ++table) {
    for (const auto& [path, file] : run.tables[table]) {
      if (!file.seen) MediaTreeDeleteRow(table, path.c_str());
    }
  }
}

}  // namespace

bool IncrementalReindexWanted(const char* confFile) {
  char value[32] = "";
  return QLIBFileGetKeyValue(confFile, "reindex", value, sizeof value, 0) >= 0 &&
         strcasecmp(value, "incremental") == 0;
}

int MediaTypeOfHandler(const MediaHandlerRow* row) {
  if (row == nullptr) return -1;
  const MediaHandler index = row->index;
  if (index == IndexMp3 || index == IndexAudio || index == IndexMp4 || index == IndexFlac || index == IndexAiff)
    return kMediaMusic;
  if (index == IndexVideo || index == IndexVcd) return kMediaVideo;
  if (index == IndexPhoto) return kMediaPhoto;
  if (index == IndexPlaylist) return kMediaPlaylist;
  return -1;
}

void ReindexTreeIncrementally(const char* folder) {
  if (folder == nullptr || !IsDirExist(folder)) return;
  TreeRun run;
  // Without the stored rows every file is read again and nothing is removed.
  const bool loaded = LoadRows(folder, &run);
  if (!loaded) {
    for (StoredRows& rows : run.tables) rows.clear();
  }
  // A share that cannot be opened at all keeps its rows.
  if (!WalkFolder(&run, folder) || !loaded) return;
  DeleteUnseenRows(run);
}

void ReindexSharesIncrementally(bool allShares) {
  const char* const links[] = {kMusicShareLink, kVideoShareLink, kPhotoShareLink};
  for (const char* link : links) {
    char target[kPathSize];
    memset(target, 0, sizeof target);
    if (readlink(link, target, sizeof target - 1) != -1) ReindexTreeIncrementally(target);
    if (!allShares) break;
  }
}
