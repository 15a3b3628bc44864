// PhotoInfo: the photo record that PhotoInfoDBSave takes. It crosses into the
// photo database library, so its layout is fixed (native byte order, strings
// NUL-terminated inside their fields) and checked below.
#pragma once

#include <cstddef>
#include <cstdint>

struct PhotoInfo {
  int32_t reserved;         // always 0
  char path[4096];
  char name[255];           // last path component
  char title[255];          // name without its last extension
  char album[255];          // the holding folder's name
  char make[100];           // EXIF camera maker
  char model[100];
  char exposure[16];
  char aperture[16];
  char takenDate[32];       // EXIF "YYYY:MM:DD hh:mm:ss", or the ctime as "%F %T"
  char changeTimeText[32];  // ctime() text of the status-change time, newline included
  char padding[3];
  int32_t width;
  int32_t height;
  int32_t iso;
  int64_t fileSize;
};

static_assert(sizeof(PhotoInfo) == 5184);
static_assert(offsetof(PhotoInfo, path) == 4);
static_assert(offsetof(PhotoInfo, name) == 4100);
static_assert(offsetof(PhotoInfo, title) == 4355);
static_assert(offsetof(PhotoInfo, album) == 4610);
static_assert(offsetof(PhotoInfo, make) == 4865);
static_assert(offsetof(PhotoInfo, model) == 4965);
static_assert(offsetof(PhotoInfo, exposure) == 5065);
static_assert(offsetof(PhotoInfo, aperture) == 5081);
static_assert(offsetof(PhotoInfo, takenDate) == 5097);
static_assert(offsetof(PhotoInfo, changeTimeText) == 5129);
static_assert(offsetof(PhotoInfo, width) == 5164);
static_assert(offsetof(PhotoInfo, height) == 5168);
static_assert(offsetof(PhotoInfo, iso) == 5172);
static_assert(offsetof(PhotoInfo, fileSize) == 5176);
