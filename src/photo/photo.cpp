// The picture handlers of the media database: one media row (type 2) per
// picture, with camera data from EXIF for JPEG files.

#include <strings.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "handlers/handlers.h"
#include "meta/exif.h"
#include "photo/photo_index.h"
#include "photo/photo_path.h"
#include "platform/log.h"
#include "platform/media_db.h"
#include "platform/media_info.h"
#include "platform/photo_info.h"
#include "platform/system.h"

namespace {

// The EXIF date "YYYY:MM:DD hh:mm:ss" as a time value. The six numbers are
// read one after another, so a damaged date still yields whatever mktime
// makes of it (an out-of-range field is normalised, a rejected one gives -1,
// as does a date outside the 32-bit range).
time_t ExifDateToTime(const char* takenDate) {
  char text[sizeof(PhotoInfo::takenDate)];
  photo_path::CopyText(text, takenDate);
  for (char* p = text; *p != '\0'; ++p) {
    if (*p == ':') *p = ' ';
  }
  long fields[6] = {};
  const char* cursor = text;
  for (long& field : fields) {
    char* end = nullptr;
    field = strtol(cursor, &end, 10);
    cursor = end;
  }
  struct tm broken = {};
  broken.tm_year = static_cast<int>(fields[0] - 1900);
  broken.tm_mon = static_cast<int>(fields[1] - 1);
  broken.tm_mday = static_cast<int>(fields[2]);
  broken.tm_hour = static_cast<int>(fields[3]);
  broken.tm_min = static_cast<int>(fields[4]);
  broken.tm_sec = static_cast<int>(fields[5]);
  // Always taken as standard time, also in summer: deliberate, the stored
  // times of existing rows were made this way.
  broken.tm_isdst = 0;
  time_t taken = mktime(&broken);
  // The appliance's time_t has 32 bits: there mktime refuses a date outside
  // that range with -1, which the row then stores. Computed as it would be.
  if (taken < INT32_MIN || taken > INT32_MAX) return -1;
  return taken;
}

bool IsJpegExtension(const char* extension) {
  return strcasecmp(extension, "jpg") == 0 || strcasecmp(extension, "jpeg") == 0 ||
         strcasecmp(extension, "jpe") == 0;
}

// Camera fields from EXIF into the media record (JPEG files only).
void FillFromExif(const char* path, MediaInfo& media) {
  PhotoInfo photo = {};
  photo_path::CopyText(photo.path, path);
  ReadExifInfo(&photo);
  SanitizePhotoInfo(&photo);

  photo_path::CopyText(media.camera_make, photo.make);
  photo_path::CopyText(media.camera_model, photo.model);
  photo_path::CopyText(media.exposure_time, photo.exposure);
  photo_path::CopyText(media.aperture, photo.aperture);
  if (photo.takenDate[0] != '\0') {
    // Any non-zero result replaces the modification time, the error value -1
    // included; only 0 keeps it. Deliberate: stored rows depend on it.
    time_t taken = ExifDateToTime(photo.takenDate);
    if (taken != 0) media.mtime = static_cast<int32_t>(taken);
  }
  media.width = photo.width;
  media.height = photo.height;
  media.iso_speed = photo.iso;
}

}  // namespace

int IndexPhoto(const char* path) {
  if (path == nullptr) {
    ORVO_LOG("%s (%d) Bad parameter.");
    return -1;
  }
  int64_t size = 0;
  time_t mtime = 0;
  if (!IsFileExist(path, &size, &mtime)) return -1;

  MediaInfo media = {};
  // Thumbnail and metadata folders of the appliance are never indexed.
  if (strstr(path, "@eaDir") != nullptr) return 0;

  photo_path::CopyText(media.path, path);
  media.filesize = size;
  photo_path::CopyName(media.title, photo_path::FileName(path));
  photo_path::CutAtLast(media.title, '.');
  if (photo_path::HoldingFolder(path, media.album) < 0) {
    ORVO_LOG("%s (%d) Impossible error.");
  }

  const char* dot = strrchr(media.path, '.');
  if (dot != nullptr) {
    media.mtime = static_cast<int32_t>(mtime);
    if (IsJpegExtension(dot + 1)) FillFromExif(path, media);
    // The header's pixel size wins over EXIF; not clamped on this path.
    int width = 0;
    int height = 0;
    if (ORVOIndexImgResGet(path, &width, &height) == 0) {
      media.width = width;
      media.height = height;
    }
  }

  if (MediaInfoDBSave(kMediaPhoto, &media) != 0) {
    // The playlist handler's wording, kept deliberately: log watchers match it.
    ORVO_LOG("%s (%d) Failed to save playlist info.");
    return -1;
  }
  return 0;
}

int RemovePhoto(const char* path) {
  if (path == nullptr) {
    ORVO_LOG("%s (%d) Bad parameter.");
    return -1;
  }
  if (IsFileExist(path, nullptr)) {
    ORVO_LOG("%s (%d) File exists. Skip remove it from database.");
    return -1;
  }
  if (MediaInfoDBDelete(kMediaPhoto, path) != 0) {
    ORVO_LOG("%s (%d) Failed to remove %s from database.", path);
  }
  return 0;
}
