// System services the appliance's SDK library provides: configuration files,
// pid files, the product banner, file tests, the thumbnail service and the
// music server's reload signal.
#pragma once

#include <cstdint>
#include <ctime>

// Reads `key` from a "key=value" file ('#' comments, optional double quotes
// around the value, the last occurrence wins) into `out`, NUL-terminated and
// never more than `outSize` bytes. Returns the value's length, or a negative
// value when the file or the key is missing (then `out` is left untouched).
// `flags` must be 0.
int QLIBFileGetKeyValue(const char* file, const char* key, char* out, int outSize, int flags);

// The decimal pid at the start of the file (trailing blanks and a newline are
// allowed); 0 or negative when there is none.
int QLIBReadPidFile(const char* path);

inline constexpr const char kMusicServerPidFile[] = "/var/run/mt-daapd.pid";

// Sends SIGHUP to the music server (the pid in kMusicServerPidFile) so that it
// reloads the media database; nothing when it does not run.
void NotifyMusicServer();

// Prints the product banner (name, version, licence line) to standard output.
void QLIBCopyright();

// Non-zero when `path` is a regular file (links followed); stores its size in
// *size when `size` is not null.
int IsFileExist(const char* path, int64_t* size);
// The same, also giving the modification time in seconds, so that a handler
// that needs both stats the file once.
int IsFileExist(const char* path, int64_t* size, time_t* mtime);

// Non-zero when `path` is a directory (links followed).
int IsDirExist(const char* path);

// Asks the thumbnail service for thumbnails of `path`: appends "<level>:<path>\n"
// to /var/spool/orvo_thumb_queue and signals the service when it runs.
// Returns 0, or -1 when the request could not be queued.
int QLIBSignalThumbCreate(const char* path, int level);
