// Where the system services keep their files, and the thumbnail request with
// its two paths passed in, so that tests can aim it at a scratch folder.
#pragma once

inline constexpr const char* kThumbQueuePath = "/var/spool/orvo_thumb_queue";
inline constexpr const char* kThumbPidPath = "/var/run/orvothumbd.pid";

// QLIBSignalThumbCreate with its queue file and the thumbnail service's pid
// file given. Returns 0 once the line is appended, -1 otherwise.
int QLIBSignalThumbCreateAt(const char* queuePath, const char* pidPath, const char* path, int level);
