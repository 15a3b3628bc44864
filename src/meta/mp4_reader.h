// A small reader of MP4 and QuickTime files: the tracks' media headers and
// first sample entries, and the iTunes tags, all from the movie box ('moov').
// It reads box headers and the few boxes it needs; the media data ('mdat')
// is passed over, never read, wherever it lies. Works over a ByteReader, so
// files, bytes built in memory and fuzz input take the same path.
//
// Damage is survived, not reported box by box: a box that claims more than
// its parent holds is cut at the parent's end (a truncated file keeps what
// is there), a box too short for its fixed fields counts as absent, and a
// size below the header's own ends the walk of that box's parent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "meta/byte_reader.h"

// What one track's headers say.
struct Mp4Track {
  bool found = false;
  char handler[5] = {};            // the media handler type: "soun", "vide", ...
  uint32_t time_scale = 0;         // media header: units per second
  uint64_t duration = 0;           // media header, in time_scale units
  bool duration_unknown = false;   // the media header's all-ones value
  int32_t channels = -1;           // sound sample entry; -1 when there is none
  int32_t width = 0, height = 0;   // visual sample entry, pixels
  bool has_esds = false;           // the first sample entry carries an ES descriptor
  uint32_t esds_avg_bitrate = 0;   // its DecoderConfigDescriptor's avgBitrate
  uint64_t sample_bytes = 0;       // total of the sample size table
};

// iTunes tags ('moov'/'udta'/'meta'/'ilst'): the value bytes of each item's
// first 'data' box, as found (at most kMp4TagTextLimit bytes, never ending in
// a cut UTF-8 sequence).
struct Mp4Tags {
  std::string title;   // ©nam
  std::string album;   // ©alb
  std::string artist;  // ©ART
  std::string genre;   // 'gnre' as its ID3 genre name, else ©gen
  std::string year;    // ©day
  int32_t track = 0;   // 'trkn': the number; the total is dropped
};

inline constexpr size_t kMp4TagTextLimit = 1024;

struct Mp4Info {
  int32_t tracks = 0;  // 'trak' boxes with a track header and a media header
  Mp4Track sound;      // the first track whose handler is "soun"
  Mp4Track video;      // the last track whose handler is "vide"
  Mp4Tags tags;
};

enum class Mp4Result {
  kOk,
  kNotMp4,    // no movie box among the top-level boxes, or the file cannot be read
  kNoTracks,  // a movie box without a single track
};

// Reads the source's boxes into `info` (which it resets first).
Mp4Result ReadMp4(ByteReader* reader, Mp4Info* info);

// The same for the file at `path`; kNotMp4 when it cannot be opened.
Mp4Result ReadMp4File(const char* path, Mp4Info* info);

// The same for `size` bytes at `data`.
Mp4Result ReadMp4Memory(const void* data, size_t size, Mp4Info* info);

// Whole seconds of the track's media duration in its own time scale: 0 when
// the duration is unknown or the time scale 0. The quotient is narrowed to
// 32 bits as it always was.
int32_t Mp4TrackSeconds(const Mp4Track& track);

// The track's bit rate: the ES descriptor's average when the sample entry
// has one (even 0), else the sample sizes' total over the duration counted
// in whole milliseconds (0 when that is 0).
uint32_t Mp4TrackBitRate(const Mp4Track& track);
