// Owners for what the photo routines hold while they walk folders and read
// the photo database: malloc'd text, query handles, path lists, glob
// results and the process's working folder.
#pragma once

#include <glob.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "platform/photo_db.h"

namespace photo_scoped {

struct FreeDeleter {
  void operator()(void* p) const { free(p); }
};
// Text from malloc, so that an allocation failure is an answer, not a throw.
using CText = std::unique_ptr<char, FreeDeleter>;

struct HandleCloser {
  void operator()(PhotoDBHandle* handle) const { PhotoInfoDBClose(handle); }
};
using HandleOwner = std::unique_ptr<PhotoDBHandle, HandleCloser>;

struct PathListFree {
  void operator()(PhotoPathNode* list) const { FreePhotoPathList(list); }
};
using PathListOwner = std::unique_ptr<PhotoPathNode, PathListFree>;

// The matches of one glob() in the working folder, freed on every way out.
struct GlobOwner {
  glob_t matches = {};
  bool filled = false;
  GlobOwner() = default;
  GlobOwner(const GlobOwner&) = delete;
  GlobOwner& operator=(const GlobOwner&) = delete;
  ~GlobOwner() {
    if (filled) globfree(&matches);
  }
  // True when something matched.
  bool Run(const char* pattern, int flags) {
    filled = true;
    return glob(pattern, flags, nullptr, &matches) == 0 && matches.gl_pathc > 0;
  }
};

// Puts the process back into the folder it was in, on every way out.
struct WorkingFolderRestore {
  std::string saved;
  WorkingFolderRestore() = default;
  WorkingFolderRestore(const WorkingFolderRestore&) = delete;
  WorkingFolderRestore& operator=(const WorkingFolderRestore&) = delete;
  ~WorkingFolderRestore() {
    if (!saved.empty() && chdir(saved.c_str()) != 0) {
      // Nothing better to do: every later lookup uses absolute paths.
    }
  }
  // Remembers the current folder; false when getcwd fails.
  bool Save() {
    char buffer[4096] = {};
    if (getcwd(buffer, sizeof buffer) == nullptr) return false;
    saved = buffer;
    return true;
  }
};

// stat confirms a folder: directory-only globbing cannot be trusted on the
// file system CheckPhotoShareFs flags.
inline bool IsDirectoryEntry(const char* name) {
  struct stat64 st;
  return stat64(name, &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace photo_scoped
