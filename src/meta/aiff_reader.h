// A small reader of AIFF and AIFC headers: the audio format from the COMM
// chunk, nothing else. Works on a file or on bytes in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

struct AiffFormat {
  uint64_t sample_frames;
  int32_t channels;
  double sample_rate;
  int32_t bits_per_sample;  // replaced for compressed AIFC data
  int32_t segment_size;     // bytes per sample, rounded up
};

enum class AiffEncoding {
  kPcm,              // NONE, lpcm, twos, and every AIFF
  kPcmLittleEndian,  // sowt
  kUlaw,
  kAlaw,
  kFloat32,
  kUnknown,          // any other compression type; the open still succeeds
};

struct AiffFile;
struct AiffFileCloser {
  void operator()(AiffFile* file) const;
};
using AiffHandle = std::unique_ptr<AiffFile, AiffFileCloser>;

// Opens an AIFF/AIFC file and reads its COMM chunk. Only read modes ("r",
// "rb") are supported. Null when the file cannot be opened or is not an
// AIFF/AIFC file with a usable COMM chunk.
AiffHandle AiffOpen(const char* path, const char* mode);

// The same over `size` bytes at `data`, which must outlive the handle.
AiffHandle AiffOpenMemory(const uint8_t* data, size_t size);

// Fills `format` and returns 1; -1 for a null handle.
int AiffGetFormat(const AiffFile* file, AiffFormat* format);

AiffEncoding AiffGetEncoding(const AiffFile* file);

// The 80-bit IEEE 754 extended-precision number at `bytes` (big-endian).
double ExtendedToDouble(const uint8_t bytes[10]);
