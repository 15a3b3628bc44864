// Fuzzes the EXIF reader: each input is written to one scratch file (the
// reader takes a path) and read back through ReadExifInfo.

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "meta/exif.h"

namespace {

const char* ScratchPath() {
  static char path[64] = {};
  if (path[0] == '\0') {
    snprintf(path, sizeof path, "/tmp/exif_fuzz.XXXXXX");
    int fd = mkstemp(path);
    if (fd < 0) abort();
    close(fd);
  }
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const char* path = ScratchPath();
  FILE* file = fopen(path, "wb");
  if (file == nullptr) return 0;
  if (size > 0) fwrite(data, 1, size, file);
  fclose(file);

  PhotoInfo info = {};
  snprintf(info.path, sizeof info.path, "%s", path);
  ReadExifInfo(&info);
  // Every text must end inside its field.
  if (strnlen(info.make, sizeof info.make) == sizeof info.make ||
      strnlen(info.model, sizeof info.model) == sizeof info.model ||
      strnlen(info.exposure, sizeof info.exposure) == sizeof info.exposure ||
      strnlen(info.aperture, sizeof info.aperture) == sizeof info.aperture ||
      strnlen(info.takenDate, sizeof info.takenDate) == sizeof info.takenDate) {
    abort();
  }
  return 0;
}
