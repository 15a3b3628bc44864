// MP4 and QuickTime video through our own box reader (meta/mp4_reader.h):
// the values the generic probe stores, worked out from the movie's tables
// the way the probe's demuxer and stream analysis work them out, for the
// files where every one of them provably comes out the same. Everything
// else (other codecs, tags, fragments, extra tracks, unusual edits, damaged
// tables) is left to the probe, untouched.
#pragma once

#include "platform/media_info.h"

// Fills the fields the probe fills (duration, bit rates, picture size,
// rate and channels, and the track number, which such a file never has)
// and returns true; or returns false having changed nothing. The first
// frame of the last sound track is decoded by the probe helper, as the
// analysis decodes it.
bool ReadMp4VideoValues(const char* path, MediaInfo* info);
