#include "index/folder_visits.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

namespace {

struct FreeDeleter {
  void operator()(char* text) const { free(text); }
};

// realpath's answer, or empty when the path does not resolve.
std::string RealPath(const char* path) {
  std::unique_ptr<char, FreeDeleter> real(realpath(path, nullptr));
  return real ? std::string(real.get()) : std::string();
}

// The share part of a walk's start: up to (not including) its third '/'.
std::string ShareOf(const char* path) {
  const char* slash = path;
  for (int seen = 0; seen < 3; ++seen) {
    slash = strchr(seen == 0 ? slash : slash + 1, '/');
    if (slash == nullptr) return path;
  }
  return std::string(path, static_cast<size_t>(slash - path));
}

}  // namespace

FolderVisits StartFolderVisits(const char* path) {
  FolderVisits visits;
  if (path != nullptr) visits.shareRoot = RealPath(ShareOf(path).c_str());
  return visits;
}

bool FirstVisit(FolderVisits& visits, dev_t device, ino_t inode) {
  return visits.entered.insert(FolderId{device, inode}).second;
}

bool IsLinkWithinShare(const FolderVisits& visits, const char* path) {
  if (visits.shareRoot.empty()) return false;
  struct stat st;
  if (lstat(path, &st) != 0 || !S_ISLNK(st.st_mode)) return false;
  std::string target = RealPath(path);
  if (target.empty()) return false;
  std::string_view root = visits.shareRoot;
  if (root == "/") return true;
  return target.starts_with(root) && (target.size() == root.size() || target[root.size()] == '/');
}

int FolderOpenError(const char* path) {
  DIR* dir = opendir(path);
  if (dir == nullptr) return errno != 0 ? errno : ENOENT;
  closedir(dir);
  return 0;
}
