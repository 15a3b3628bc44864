// Playlists are registered by name and folder only; their entries are never
// read.
#include <cstdint>

#include "handlers/formats.h"
#include "handlers/handlers.h"
#include "handlers/record_defaults.h"
#include "platform/log.h"
#include "platform/media_db.h"
#include "platform/system.h"

int FillPlaylistRecord(const char* path, MediaInfo* info) {
  // An empty path is left to the existence test.
  if (path == nullptr || info == nullptr) {
    ORVO_LOG("%s (%d) Bad parameter.");
    return -1;
  }
  int64_t size = 0;
  if (IsFileExist(path, &size) == 0) return -1;

  StartRecord(info, path, size);
  SetDefaultTitle(info, path);
  if (!SetDefaultAlbum(info, path)) ORVO_LOG("%s (%d) Impossible error.");
  // No mtime and no MediaInfoValid for playlists: deliberate, the playlist
  // table has always held mtime 0.
  return 0;
}

int IndexPlaylist(const char* path) {
  MediaInfo info;
  if (FillPlaylistRecord(path, &info) < 0) return -1;
  if (MediaInfoDBSave(kMediaPlaylist, &info) != 0) {
    ORVO_LOG("%s (%d) Failed to save playlist info.");
    return -1;
  }
  return 0;
}

int RemovePlaylist(const char* path) {
  if (IsFileExist(path, nullptr) != 0) {
    ORVO_LOG("%s (%d) File exists. Skip remove it from database.");
    return -1;
  }
  // The wording differs from the other removers' and a failed delete still
  // returns 0; both deliberate.
  if (MediaInfoDBDelete(kMediaPlaylist, path) != 0) {
    ORVO_LOG("%s (%d) Failed to remove %s from database.", path);
  }
  return 0;
}
