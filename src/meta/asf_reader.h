// WMA (ASF with one WMA v1/v2 audio stream) through our own header reader:
// the values the generic probe stores, worked out from the header objects
// the probe's demuxer reads when it opens the file, the way it and the
// tuned probe work them out. Only a file whose header walk stays inside
// what was read, with exactly one stream, an audio stream of WMA v1 or v2
// whose duration the demuxer takes from the file properties, and nothing
// else that makes a stream, a chapter or a protection tag (cover pictures,
// ID3 tags in the header, markers, DRM and signature objects), is vouched
// for; anything else is left to the probe, untouched.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/media_info.h"

// One entry of the probe's container dictionary, after the demuxer renamed
// the ASF names to the generic ones.
struct AsfTag {
  std::string key, value;
};

// The values of a file the reader vouches for.
struct AsfValues {
  int64_t duration = 0;        // the container's, in microseconds; 0 when the header gives none
  int64_t bit_rate = 0;        // the container's: the whole file over the duration (0 without one)
  int64_t audio_bit_rate = 0;  // the stream's: its format's average bytes a second, times 8
  int32_t sample_rate = 0;
  int32_t channels = 0;
  std::vector<AsfTag> tags;    // in the dictionary's order
};

// True with the values when `data` (the first `size` bytes of a file of
// `length` bytes) holds a header the reader vouches for; false otherwise.
bool ReadAsfMemory(const uint8_t* data, size_t size, int64_t length, AsfValues* values);

// Fills the fields the probe fills (duration, both bit rates, rate,
// channels, title, artist, album, year, genre, track) and returns true; or
// returns false having changed nothing. `fd` is the open regular file,
// `length` its size; it is read by position only. Any file costs one read
// of up to 4 KiB (see StartsWithAsfHeader); a longer header one more read,
// up to 1 MiB.
bool ReadAsfValues(int fd, int64_t length, MediaInfo* info);

// True when the first `size` bytes of a file start as an ASF file's do, with
// the header object's GUID: the only files ReadAsfValues may vouch for.
bool StartsWithAsfHeader(const uint8_t* head, size_t size);
// The same for a file named by its path (tests and benchmarks).
bool ReadAsfValues(const char* path, MediaInfo* info);
