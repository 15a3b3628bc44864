// Ogg Vorbis and Ogg Opus through our own page reader: the values the
// generic probe stores, worked out from the same pages the probe's demuxer
// reads when it opens the file (the header pages up to the first audio
// packet, then the last 65307 bytes for the final granule position), the
// way the demuxer and the tuned probe work them out. Only a file that is
// one logical stream of Vorbis or Opus, laid out as encoders lay it out,
// with every page it reads whole and its checksum right, is vouched for;
// anything else (chained or multiplexed streams, cover pictures, chapters,
// damaged or unusual pages, odd granule positions) is left to the probe,
// untouched.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/media_info.h"

// One comment as the probe's dictionary ends up holding it: the key as the
// last comment of that name spelt it, repeated names' values joined by ';'.
struct OggTag {
  std::string key, value;
};

// The values of a file the reader vouches for.
struct OggValues {
  int64_t duration = 0;        // the container's, in microseconds (> 0)
  int64_t bit_rate = 0;        // the container's: the whole file over the duration
  int64_t audio_bit_rate = 0;  // the stream's: Vorbis's nominal figure, 0 for Opus
  int32_t sample_rate = 0;     // 48000 for Opus, whatever its header says
  int32_t channels = 0;
  std::vector<OggTag> tags;    // in the dictionary's order
};

// True with the values when `data` (a whole file of `size` bytes) is a file
// the reader vouches for; false otherwise.
bool ReadOggMemory(const uint8_t* data, size_t size, OggValues* values);

// Fills the fields the probe fills (duration, both bit rates, rate,
// channels, title, artist, album, year, genre, track) and returns true; or
// returns false having changed nothing. `fd` is the open regular file,
// `length` its size; it is read by position only. Any file that does not
// start with a page costs one read of 16 KiB (see StartsWithOggPage).
bool ReadOggValues(int fd, int64_t length, MediaInfo* info);

// True when the first `size` bytes of a file start as an Ogg file's do, with
// a page: the only files ReadOggValues may vouch for.
bool StartsWithOggPage(const uint8_t* head, size_t size);
// The same for a file named by its path (tests and benchmarks).
bool ReadOggValues(const char* path, MediaInfo* info);
