// The MP3 pair of the handler table: index an MP3 file into the music table,
// remove it once the file is gone.
#include <cstdio>
#include <cstring>
#include <string_view>

#include "handlers/handlers.h"
#include "handlers/record_defaults.h"
#include "meta/metaid3.h"
#include "platform/log.h"
#include "platform/media_db.h"
#include "platform/system.h"
#include "platform/text_encoding.h"

namespace {

// The file name without its last extension ("archive.tar.mp3" gives
// "archive.tar"; ".mp3" gives an empty title).
void WriteDefaultTitle(MediaInfo* rec) {
  const char* slash = strrchr(rec->path, '/');
  const char* base = slash != nullptr ? slash + 1 : rec->path;
  const char* dot = strrchr(base, '.');
  // A base name is at most 255 bytes, but the path need not be one we stat'ed.
  size_t n = dot != nullptr ? static_cast<size_t>(dot - base) : strlen(base);
  orvo::CopyTextField(rec->title, sizeof rec->title, std::string_view(base, n));
}

// The name of the file's parent folder; stays empty when the path has none.
void WriteFolderAlbum(MediaInfo* rec) {
  const char* path = rec->path;
  const char* slash = strrchr(path, '/');
  if (slash == nullptr || slash == path) return;
  const char* p = slash - 1;
  while (p > path && *p != '/') --p;
  if (*p != '/') return;
  orvo::CopyTextField(rec->album, sizeof rec->album, p + 1);
  char* cut = strrchr(rec->album, '/');
  if (cut == nullptr) {
    // A folder name longer than the field: the '/' after it was cut off.
    ORVO_LOG("%s (%d) Impossible error.");
    return;
  }
  *cut = '\0';
}

}  // namespace

int IndexMp3(const char* path) {
  if (path == nullptr || path[0] == '\0') {
    ORVO_LOG("%s (%d) Bad parameter.");
    return -1;
  }
  int64_t size = 0;
  time_t mtime = 0;
  if (IsFileExist(path, &size, &mtime) == 0) return -1;

  MediaInfo rec;
  memset(&rec, 0, sizeof rec);
  snprintf(rec.path, sizeof rec.path, "%.*s", static_cast<int>(sizeof rec.path - 1), path);
  rec.filesize = size;
  WriteDefaultTitle(&rec);

  if (ReadMp3Info(rec.path, &rec) < 0) {
    ORVO_LOG("%s (%d) Failed to parse music metadata.");
    return -1;
  }
  rec.mtime = static_cast<int32_t>(mtime);
  MediaInfoValid(&rec);

  if (rec.title[0] == '\0') {
    memset(rec.title, 0, sizeof rec.title);
    WriteDefaultTitle(&rec);
  }
  if (rec.album[0] == '\0') WriteFolderAlbum(&rec);

  return SaveMediaRecord(kMediaMusic, rec, __FILE_NAME__, __LINE__);
}

int RemoveMp3(const char* path) {
  if (path == nullptr) return -1;
  return RemoveMediaRecord(kMediaMusic, path, __FILE_NAME__, __LINE__);
}
