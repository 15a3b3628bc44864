// The index dispatcher and folder walker: one file or directory row
// (IndexFile) and whole trees (IndexFolder).
//
// IndexFolder and photo/photo_index.h call each other by design, the one pair
// of modules that does: the walk applies the photo update to each file, and a
// photo rename with no rows yet walks the new folder.
#pragma once

// IndexFile modes.
enum IndexMode : int { kIndexAdd = 1, kIndexRemove = 2 };

// IndexFolder operations and type bits.
enum IndexOperation : int { kFolderAdd = 1, kFolderDelete = 2, kFolderReindexShares = 3, kFolderRefresh = 5 };
enum IndexTypeBits : int { kIndexMediaDb = 1, kIndexPhotoDb = 2, kIndexMusicShareOnly = 4 };

int IndexFile(const char* path, int mode);
int IndexFolder(const char* path, int operation, int type);
int SaveDirectoryInfo(const char* path);
