// The media database: one row per indexed file in the table of its media
// type (music, video, photo, playlist) and one row per folder (directory).
// Every call opens the database on first use, logs its own failures and
// returns 0 on success, -1 on failure; a later call tries the database again.
#pragma once

#include <ctime>

#include "platform/media_info.h"

// Makes the record safe to store: every text field NUL-terminated inside its
// width, negative counts and sizes set to 0, a duration that is not a finite
// non-negative number set to 0. Returns 0 when nothing had to change.
int MediaInfoValid(MediaInfo* info);

// Upserts the record by path into the table of `type` (0 to 3). Text is
// stored as UTF-8: fields flagged UTF-16 are decoded by their byte-order mark,
// valid UTF-8 is kept, anything else is taken as Latin-1.
int MediaInfoDBSave(int type, const MediaInfo* info);

// Deletes `path` from the table of `type` (0 to 3); type 5 deletes the path
// and everything below it ("P" and "P/...") from every media table,
// directory included.
int MediaInfoDBDelete(int type, const char* path);

// Upserts the directory row of an existing folder with its own mtime.
int MediaInfoDBDirSave(const char* path);

// Flushes pending writes, then vacuums the media database.
int MediaDBVacuum();

// Empties one of music, video, photo, playlist, directory. Any other name is
// refused (-1) and nothing is executed.
int ORVOTruncateTable(const char* table);

// The file's modification time in seconds; 0 when it cannot be read.
time_t ORVOIndexModifyTimeGet(const char* path);

// The picture's pixel size from its header (no pixel decoding) for jpg, jpeg,
// jpe, png, gif, bmp, ico, tif, tiff, psd and ufo. 0 on success.
int ORVOIndexImgResGet(const char* path, int* width, int* height);
