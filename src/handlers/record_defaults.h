// The file-name and folder defaults that the non-MP3 handlers put into a
// media record before (or, for MP4 and AIFF, after) the format's own tags.
// They never log: the "Impossible error." guard is reported by the caller so
// that the message carries the caller's module name.
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
// the snprintf(field, bound, "%s", text) of every text field.
void CopyField(char* field, int bound, std::string_view text);
