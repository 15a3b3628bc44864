// The media handler table: which index and remove handlers own a file,
// chosen by the file-name extension alone, never by the file's contents.
#pragma once

#include <cstdint>

#include "handlers/handlers.h"

struct MediaHandlerRow {
  const char* extension;  // lower case, without the dot; null ends the table
  MediaHandler index;
  MediaHandler remove;
  // What the index handler reads of a typical file: its first head_kib and
  // last tail_kib KiB. The walk asks for them a few files ahead, so the disk
  // reads them while the files before are parsed; 0 and 0 asks for nothing.
  uint16_t head_kib;
  uint16_t tail_kib;
};

// The rows in their fixed order; the row numbers matter to IsVideoExtension.
extern const MediaHandlerRow kMediaHandlerTable[];

// The text after the last '.' of the whole path (not only of the last
// component), or null when the path has no '.'.
const char* PathExtension(const char* path);

// The first row whose extension equals the path's (case ignored), or null
// when the path has no '.' or no row matches.
const MediaHandlerRow* FindMediaHandler(const char* path);

// 1 when the path's extension is one of the video rows (19 to 32), else 0.
int IsVideoExtension(const char* path);
