// Camera data of a picture from its EXIF block, read with libexif.
#pragma once

#include "platform/photo_info.h"

// Fills make, model, exposure, aperture, takenDate, width, height and iso of
// `info` from the EXIF block of the file named by info->path; nothing else in
// the record is touched. Texts are stored as libexif renders them, cut to
// their fields; takenDate prefers DateTimeOriginal, then DateTimeDigitized,
// then DateTime. A file that cannot be read or holds no EXIF is not an error:
// 0 with the record unchanged. -1 (logged) on a null record.
int ReadExifInfo(PhotoInfo* info);
