// EXIF extraction: ten tags of the five IFDs, rendered by libexif.

#include "meta/exif.h"

#include <libexif/exif-data.h>
#include <libexif/exif-loader.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/fd_owner.h"
#include "platform/log.h"
#include "platform/read_advice.h"
#include "platform/text_encoding.h"

namespace {

struct LoaderUnref {
  void operator()(ExifLoader* loader) const { exif_loader_unref(loader); }
};
struct DataUnref {
  void operator()(ExifData* data) const { exif_data_unref(data); }
};
using ExifDataOwner = std::unique_ptr<ExifData, DataUnref>;

// Rendered values reach 127 characters; the receiving fields are smaller,
// so every copy is cut to its field (between whole characters when the text
// is UTF-8) and stays NUL-terminated.
template <size_t N>
void CopyField(char (&field)[N], const char* text) {
  orvo::CopyTextField(field, N, text);
}

// The loader is fed what libexif's own file loader feeds it, 1024 bytes at
// a time from the start until it has the block or the file ends, but read
// from a descriptor without the kernel's read-ahead, in reads that double
// from 4 KiB: the EXIF block sits at the head of the file, and a picture's
// read-ahead would otherwise read far past it.
constexpr size_t kLoaderPiece = 1024;
constexpr size_t kFirstRead = 4096;
constexpr size_t kLongestRead = 65536;

// Loads the EXIF block of the file; null when there is none or the file
// cannot be read.
ExifDataOwner LoadExif(const char* path) {
  std::unique_ptr<ExifLoader, LoaderUnref> loader(exif_loader_new());
  if (!loader) return nullptr;
  FdOwner fd(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (fd.get() < 0) return nullptr;
  AdviseFewReads(fd.get());
  auto buffer = std::make_unique<unsigned char[]>(kLongestRead);
  off_t at = 0;
  bool wanted = true;
  // Ends at the end of the file or when the loader wants no more; every pass reads on.
  for (size_t want = kFirstRead; wanted; want = std::min(want * 2, kLongestRead)) {
    ssize_t got;
    do {
      got = pread(fd.get(), buffer.get(), want, at);
    } while (got < 0 && errno == EINTR);
    if (got <= 0) break;
    at += got;
    for (ssize_t fed = 0; wanted && fed < got; fed += static_cast<ssize_t>(kLoaderPiece)) {
      const size_t piece = std::min(kLoaderPiece, static_cast<size_t>(got - fed));
      wanted = exif_loader_write(loader.get(), buffer.get() + fed, static_cast<unsigned>(piece)) != 0;
    }
  }
  return ExifDataOwner(exif_loader_get_data(loader.get()));
}

bool IsWantedTag(ExifTag tag) {
  switch (tag) {
    case EXIF_TAG_MAKE:
    case EXIF_TAG_MODEL:
    case EXIF_TAG_DATE_TIME:
    case EXIF_TAG_EXPOSURE_TIME:
    case EXIF_TAG_FNUMBER:
    case EXIF_TAG_ISO_SPEED_RATINGS:
    case EXIF_TAG_DATE_TIME_ORIGINAL:
    case EXIF_TAG_DATE_TIME_DIGITIZED:
    case EXIF_TAG_PIXEL_X_DIMENSION:
    case EXIF_TAG_PIXEL_Y_DIMENSION:
      return true;
    default:
      return false;
  }
}

}  // namespace

int ReadExifInfo(PhotoInfo* info) {
  if (info == nullptr) {
    ORVO_LOG("%s (%d) Bad parameter.");
    return -1;
  }
  char dateOriginal[32] = {};
  char dateDigitized[32] = {};

  ExifDataOwner data = LoadExif(info->path);
  if (!data) return 0;

  for (ExifContent* content : data->ifd) {
    if (content == nullptr) continue;
    for (unsigned int i = 0; i < content->count; ++i) {
      ExifEntry* entry = content->entries[i];
      if (entry == nullptr) continue;
      if (IsWantedTag(entry->tag)) {
        char value[128] = {};
        exif_entry_get_value(entry, value, sizeof value);
        switch (entry->tag) {
          case EXIF_TAG_MAKE: CopyField(info->make, value); break;
          case EXIF_TAG_MODEL: CopyField(info->model, value); break;
          case EXIF_TAG_DATE_TIME: CopyField(info->takenDate, value); break;
          case EXIF_TAG_EXPOSURE_TIME: CopyField(info->exposure, value); break;
          case EXIF_TAG_FNUMBER: CopyField(info->aperture, value); break;
          case EXIF_TAG_ISO_SPEED_RATINGS: info->iso = atoi(value); break;
          case EXIF_TAG_DATE_TIME_ORIGINAL: CopyField(dateOriginal, value); break;
          case EXIF_TAG_DATE_TIME_DIGITIZED: CopyField(dateDigitized, value); break;
          case EXIF_TAG_PIXEL_X_DIMENSION: info->width = atoi(value); break;
          case EXIF_TAG_PIXEL_Y_DIMENSION: info->height = atoi(value); break;
          default:
            ORVO_LOG("%s (%d) Impossible error occurred.");
            return -1;
        }
      }
      // Applied after every entry, not once at the end, so a DateTime that
      // follows an original or digitised date in the walk never wins.
      if (dateOriginal[0] != '\0') {
        CopyField(info->takenDate, dateOriginal);
      } else if (dateDigitized[0] != '\0') {
        CopyField(info->takenDate, dateDigitized);
      }
    }
  }
  return 0;
}
