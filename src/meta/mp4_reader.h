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

// ---------------------------------------------------------------------------
// The movie as the video path reads it: every table a stored value of a
// video file depends on, and whether the file holds anything beyond what
// that path can account for. A file the path cannot account for is read
// by the generic probe instead, so `plain` errs on the side of false.

inline constexpr int kMp4MovieMaxTracks = 8;
inline constexpr size_t kMp4ConfigLimit = 4096;  // the largest avcC or decoder config kept

struct Mp4MovieTrack {
  uint32_t handler = 0;        // the media handler type
  uint32_t format = 0;         // the (only) sample entry's type: 'avc1', 'mp4a', ...
  uint32_t time_scale = 0;     // media header
  uint64_t duration = 0;       // media header, in time_scale units
  uint64_t table_duration = 0; // the time-to-sample table's total
  uint32_t sample_count = 0;
  uint64_t sample_bytes = 0;   // the sample size table's total (sound only)
  uint64_t first_offset = 0;   // where the first sample lies in the file
  uint32_t first_size = 0;
  uint64_t early_bytes = 0;    // sizes of the samples decoded within 3 s of the edit's start and any shift
  int32_t width = 0, height = 0;
  uint8_t object_type = 0;     // the ES descriptor's objectTypeIndication
  std::string config;          // avcC contents (video), the decoder-specific info (audio)
  int64_t empty_edit = 0;      // movie time before the media starts (an empty first edit)
  int64_t media_time = 0;      // where the first edit starts in the media
  bool plain = false;          // every table was there, consistent, and nothing unusual came with it
};

// The movie's tags by the names the probe gives them, each as its last item
// of that name says (at most kMp4TagTextLimit bytes, up to a NUL).
struct Mp4MovieTags {
  std::string title, artist, album, date, genre;
  std::string track;  // a number's text
};

struct Mp4Movie {
  bool plain = false;          // the file and every track are plain (see above)
  bool tagged = false;         // tags the path does not read the probe's way (see ReadMovieTags)
  Mp4MovieTags tags;           // the movie's iTunes items
  uint32_t time_scale = 0;     // movie header
  uint64_t duration = 0;
  int64_t file_size = 0;
  int track_count = 0;
  Mp4MovieTrack tracks[kMp4MovieMaxTracks];
};

// Reads the movie's tables. kOk with `plain` false when the file is MP4 or
// QuickTime but holds something the video path does not account for; the
// rest of the movie is then left unread.
Mp4Result ReadMp4Movie(ByteReader* reader, Mp4Movie* movie);
Mp4Result ReadMp4MovieMemory(const void* data, size_t size, Mp4Movie* movie);

// The track's bit rate: the ES descriptor's average when the sample entry
// has one (even 0), else the sample sizes' total over the duration counted
// in whole milliseconds (0 when that is 0).
uint32_t Mp4TrackBitRate(const Mp4Track& track);
