// The folders one walk has entered, so that links between folders can
// neither make the walk repeat work nor give a file a row under a second path.
//
// A walk enters each folder at most once, known by (device, inode), and the
// first path found wins. Walks go depth-first in their listing's order:
// readdir's order for IndexFolder, glob's sorted order for the photo sweep
// and the album sync. A symbolic link whose target lies inside the walk's own
// share is never followed at all, whatever the order: its folder is walked
// under its real path, or left out with it (recycle bin, "@eaDir"). Links out
// of the share are followed, each target once; the walk's start is taken as
// given, link or not.
//
// Used by the folder walker (index.cpp), the photo sweep (photo_index.cpp)
// and the album sync (photo_share.cpp). One walk, one FolderVisits.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <unordered_set>

struct FolderId {
  dev_t device;
  ino_t inode;
  bool operator==(const FolderId&) const = default;
};

struct FolderIdHash {
  size_t operator()(const FolderId& id) const {
    return std::hash<ino_t>{}(id.inode) * 31 + std::hash<dev_t>{}(id.device);
  }
};

struct FolderVisits {
  std::string shareRoot;  // real path of the walk's share; empty when it cannot be resolved
  std::unordered_set<FolderId, FolderIdHash> entered;
};

// A walk that starts at `path`, given in the share layout (a link's target,
// not /var/services/...). Its share is the path up to its third '/' (the
// /volumeN/share of the layout), or the whole path when it is shorter.
FolderVisits StartFolderVisits(const char* path);

// True the first time this walk meets the folder; false when it entered the
// folder before, under this path or another.
bool FirstVisit(FolderVisits& visits, dev_t device, ino_t inode);

// True when `path` is a symbolic link whose target, all links resolved, lies
// inside the walk's share (the share's folder itself included).
bool IsLinkWithinShare(const FolderVisits& visits, const char* path);

// 0 when the folder can be listed, else opendir's errno: a walk that would
// empty a share's rows first makes sure the share is there to fill them.
int FolderOpenError(const char* path);
