// The photo database side of the photo share: one picture's photo row, and
// the upkeep of photo and video-application rows when files are added,
// removed, renamed or swept.
//
// This module and index/index.h call each other by design, the one pair of
// modules that does: the walk applies the photo update to each file
// (ORVOPhotoIndexUpdate), and a photo rename with no rows yet walks the new
// folder (ORVOPhotoRenamePath -> IndexFolder).
#pragma once

#include "platform/photo_info.h"

// 1 when the photo share lies on a file system whose directory-only globbing
// must be confirmed entry by entry (set by CheckPhotoShareFs).
extern int gPhotoShareFsFlag;

int ORVOPhotoIndexAdd(const char* path, int saveFlag);
int ORVOPhotoIndexRemove(const char* path);
int SanitizePhotoInfo(PhotoInfo* info);
int HasNonPrintable(const char* text);

int ORVOPhotoIndexUpdate(const char* path, int mode);
int ORVOPhotoRenamePath(const char* newPath, const char* oldPath, int isDir);
int ORVOVideoRenamePath(int table, const char* newPath, const char* oldPath);
int ORVOPhotoReconcileDir(const char* dir, char** files);
int ORVOPhotoSweep(const char* dir);
void CheckPhotoShareFs();
