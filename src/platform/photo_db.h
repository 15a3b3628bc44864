// The photo database of the photo application: photo rows (photo_image for
// pictures, photo_video for video files inside the photo share), the video
// application's video_desc and video_comment, the album table photo_share and
// photo_access_right.
#pragma once

#include "platform/orvodb.h"
#include "platform/photo_info.h"

// Table selectors of PhotoInfoDBOpen.
enum PhotoTable : int {
  kPhotoRows = 0,         // photo_image and photo_video together
  kPhotoVideoDesc = 1,    // video_desc
  kPhotoVideoComment = 2, // video_comment
  kPhotoShare = 3,        // photo_share
  kPhotoAccessRight = 4,  // photo_access_right
};

// An open query over one photo table.
struct PhotoDBHandle {
  ORVODB* db;            // the photo database's connection
  ORVODBResult* result;  // the fetched rows
  ORVODBRow row;         // cursor slot for ORVODBFetchRow
  int rowCount;
};

// Node of a path list; a list is freed whole with FreePhotoPathList.
struct PhotoPathNode {
  char* path;  // owned (malloc)
  PhotoPathNode* next;
};

// Runs "select <columns> from <table> [where <condition>] [order by <order>]
// [limit <limit>] [offset <offset>]" on the selected table. `reserved` is
// unused. Null on failure (logged). Close with PhotoInfoDBClose.
PhotoDBHandle* PhotoInfoDBOpen(int table, const char* columns, const char* condition,
                               const char* reserved, const char* order, int offset, int limit);
void PhotoInfoDBClose(PhotoDBHandle* handle);

// The "path" column of every row of the handle's result, in row order; null
// when there are none.
PhotoPathNode* PhotoPathDBGet(PhotoDBHandle* handle);
void FreePhotoPathList(PhotoPathNode* list);

// Rewrites the path of every listed photo row from the `oldPath` prefix to
// the `newPath` prefix. 0, or -1 on failure.
int ORVOUpdatePhotoPath(const PhotoPathNode* list, const char* newPath, const char* oldPath);

// Upserts the picture's photo_image row by path and marks it updated.
// `saveFlag` is the caller's mode (1 add, 5 refresh). 0 on success.
int PhotoInfoDBSave(const PhotoInfo* info, int saveFlag);

// Deletes the photo row (picture or video) of exactly `path`.
int PhotoInfoDBDelete(const char* path);

// Deletes every photo row (picture or video) at or below the folder `path`.
int PhotoInfoDBDirDelete(const char* path);

// Upserts the photo_video row of a video file in the photo share from the
// file itself and marks it updated. 0 on success, -1 when the file is gone or
// the save failed.
int ORVOIndexPhotoUpdateVideoStatus(const char* path);

// Marks every photo row (pictures and videos) not updated; deletes the rows
// still unmarked. 0 or -1.
int ORVOPhotoInitAllRows();
int ORVOPhotoDeleteNoUpdateRows();

// Executes one statement on the photo database: the number of rows it
// changed, or -1 on failure (logged).
int PhotoDBExec(const char* sql);

// Flushes pending writes, then vacuums the photo database.
int PhotoDBVacuum();
