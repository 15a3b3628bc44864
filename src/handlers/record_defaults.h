// The steps the media handlers share: the file-name and folder defaults put
// into a record before (or, for MP4 and AIFF, after) the format's own tags,
// and the save and remove at the end. The defaults never log: the
// "Impossible error." guard is reported by the caller so that the message
// carries the caller's module name; the save and remove log under the module
// and line the caller passes (__FILE_NAME__, __LINE__).
#pragma once

#include <string_view>

#include "platform/media_info.h"

// title = the text after the path's last '/' (the whole path when there is
// none), bound 255, cut at its last '.'.
void SetDefaultTitle(MediaInfo* info, const char* path);

// The MP4/AIFF variant, applied only to an empty title: the base name's
// characters before its last '.', or the whole base name (bound 255).
void SetDefaultTitleAfterTags(MediaInfo* info, const char* path);

// album = the name of the folder that holds the file: step back from the
// path's last '/' to the previous '/', copy what follows (bound 255) and cut
// the copy at its last '/'. No earlier '/' leaves the album as it is.
// Returns false when the copy holds no '/' to cut at (a folder name too long
// for the field); the copy is then kept as it is and the caller logs.
bool SetDefaultAlbum(MediaInfo* info, const char* path);

// The record's path, size and a zeroed rest, as every handler starts it.
void StartRecord(MediaInfo* info, const char* path, long long size);

// Copies at most `bound - 1` bytes of `text` into `field` and terminates it:
// the bounded copy of every text field, cut between whole characters when
// the text is UTF-8 (orvo::CopyTextField).
void CopyField(char* field, int bound, std::string_view text);

// MediaInfoDBSave(type, info); a refused save logs "Failed to save media info
// to database." and gives -1.
int SaveMediaRecord(int type, const MediaInfo& info, const char* module, int line);

// The removers' steps: a file that still exists is never removed (logged,
// -1); otherwise MediaInfoDBDelete(type, path), a failure logged with the
// path (-1).
int RemoveMediaRecord(int type, const char* path, const char* module, int line);

// The start of every file handler: a missing path or record logs "Bad
// parameter." (-1); a file that is not there gives -1 silently; otherwise the
// record is zeroed and given the path, the file's size and its modification
// time (one stat).
int BeginFileRecord(const char* path, MediaInfo* info, const char* module, int line);

// SetDefaultTitle and SetDefaultAlbum, the album's guard logged as
// "Impossible error." under the caller's module.
void SetNameDefaults(MediaInfo* info, const char* path, const char* module, int line);
