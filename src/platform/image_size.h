// Picture pixel sizes from file headers, without decoding any pixels.
// ORVOIndexImgResGet (media_db.h) is the file entry point; this is the same
// reader over bytes in memory, for tests and fuzzing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

// Reads the size of the picture in data[0, size). `extension` (without the
// dot, any case) picks the reader; when it is unknown or its reader fails,
// the format is recognised by its magic bytes instead. Returns 0 and sets
// *width and *height (both > 0) on success; -1 otherwise, leaving them alone.
int ImageSizeFromBytes(const uint8_t* data, size_t size, std::string_view extension, int* width,
                       int* height);
