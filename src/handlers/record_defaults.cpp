#include "handlers/record_defaults.h"

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "platform/log.h"
#include "platform/media_db.h"
#include "platform/system.h"
#include "platform/text_encoding.h"

namespace {

const char* BaseName(const char* path) {
  const char* slash = strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

}  // namespace

void CopyField(char* field, int bound, std::string_view text) {
  if (bound <= 0) return;
  orvo::CopyTextField(field, static_cast<size_t>(bound), text);
}

void StartRecord(MediaInfo* info, const char* path, long long size) {
  memset(info, 0, sizeof *info);
  snprintf(info->path, sizeof info->path, "%s", path);
  info->filesize = size;
}

void SetDefaultTitle(MediaInfo* info, const char* path) {
  CopyField(info->title, sizeof info->title, BaseName(path));
  // The cut looks at the bounded copy, so a base name longer than the field
  // is cut at its last '.' within the first 254 bytes. Deliberate.
  char* dot = strrchr(info->title, '.');
  if (dot != nullptr) *dot = '\0';
}

void SetDefaultTitleAfterTags(MediaInfo* info, const char* path) {
  if (info->title[0] != '\0') return;
  const char* base = BaseName(path);
  const char* dot = strrchr(base, '.');
  if (dot != nullptr) {
    // Unbounded in the original record filler; a real file name never holds
    // more than 254 bytes before its last '.', the clamp only guards the field.
    CopyField(info->title, sizeof info->title, std::string_view(base, dot - base));
  } else {
    CopyField(info->title, sizeof info->title, base);
  }
}

bool SetDefaultAlbum(MediaInfo* info, const char* path) {
  const char* last = strrchr(path, '/');
  if (last == nullptr || last == path) return true;  // no folder before the name
  const char* p = last - 1;
  while (p > path && *p != '/') --p;
  if (*p != '/') return true;
  CopyField(info->album, sizeof info->album, p + 1);
  char* cut = strrchr(info->album, '/');
  if (cut == nullptr) return false;
  *cut = '\0';
  return true;
}

// These log through orvo::Log with the caller's module and line rather
// than ORVO_LOG, so that each handler's messages keep its own module name.
int SaveMediaRecord(int type, const MediaInfo& info, const char* module, int line) {
  if (MediaInfoDBSave(type, &info) == 0) return 0;
  orvo::Log("%s (%d) Failed to save media info to database.", module, line);
  return -1;
}

int RemoveMediaRecord(int type, const char* path, const char* module, int line) {
  if (IsFileExist(path, nullptr) != 0) {
    orvo::Log("%s (%d) File exists. Skip remove it from database.", module, line);
    return -1;
  }
  if (MediaInfoDBDelete(type, path) == 0) return 0;
  orvo::Log("%s (%d) Failed to remove [%s] from database", module, line, path);
  return -1;
}

int BeginFileRecord(const char* path, MediaInfo* info, const char* module, int line) {
  if (path == nullptr || path[0] == '\0' || info == nullptr) {
    orvo::Log("%s (%d) Bad parameter.", module, line);
    return -1;
  }
  int64_t size = 0;
  time_t mtime = 0;
  if (IsFileExist(path, &size, &mtime) == 0) return -1;
  StartRecord(info, path, size);
  info->mtime = static_cast<int32_t>(mtime);
  return 0;
}

void SetNameDefaults(MediaInfo* info, const char* path, const char* module, int line) {
  SetDefaultTitle(info, path);
  if (!SetDefaultAlbum(info, path)) orvo::Log("%s (%d) Impossible error.", module, line);
}
