// MP4 and QuickTime video through our own box reader (meta/mp4_reader.h):
// the values the generic probe stores, worked out from the movie's tables
// the way the probe's demuxer and stream analysis work them out, for the
// files where every one of them provably comes out the same. Everything
// else (other codecs, other tag forms, fragments, extra tracks, unusual
// edits, damaged tables) is left to the probe, untouched.
#pragma once

#include <cstdint>

#include "meta/mp4_reader.h"
#include "platform/media_info.h"

// Fills the fields the probe fills (duration, bit rates, picture size,
// rate and channels, and the track number, which such a file never has)
// and returns true; or returns false having changed nothing. The first
// frame of the last sound track is decoded by the probe helper, as the
// analysis decodes it.
// `fd` is the open regular file `path`, `length` its size. Its offset moves;
// the probe that may read it next reads by position.
bool ReadMp4VideoValues(int fd, const char* path, int64_t length, MediaInfo* info);
// The same for a file named by its path (tests and benchmarks).
bool ReadMp4VideoValues(const char* path, MediaInfo* info);

// The values of a movie read by ReadMp4Movie, short of the sound's decoded
// rate and channels.
struct Mp4Values {
  int64_t duration = 0;        // the container's, in microseconds
  int64_t bit_rate = 0;        // the container's: the whole file over the duration
  int32_t width = 0, height = 0;  // the last picture track's; 0 without one
  int64_t sound_bit_rate = 0;  // the last sound track's that is not 0
  const Mp4MovieTrack* sound = nullptr;  // the last sound track, whose first frame gives the rest
};

// True with the values when the movie is one the path vouches for: plain,
// with tags the path reads the probe's way, H.264 pictures whose parameter
// sets confirm their size or MPEG-4 Part 2 pictures with one layer header,
// AAC sound whose first frame the analysis would read first and early.
// (ReadMp4VideoValues also reads the first MPEG-4 picture's header.)
// `length` is the file's. `values->sound` points into `movie`.
bool WorkOutMp4Values(const Mp4Movie& movie, int64_t length, Mp4Values* values);
