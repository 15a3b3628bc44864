// MPEG audio frame scanner: finds the first believable MPEG-1/MPEG-2 audio
// frame header in a ByteReader, decodes it, and estimates the play time from
// the length and the first frame's bit rate, or from a Xing or VBRI header.
// MPEG-2.5 (8, 11.025, 12 kHz) and free-format streams are never accepted.
#pragma once

#include <cstdint>
#include <map>
#include <memory>

#include "meta/byte_reader.h"

// One decoded frame header. Zeroed by the caller before the first search.
struct MpegInfo {
  int32_t version;          // 1 MPEG-1, 2 MPEG-2, 3 MPEG-2.5
  int32_t layer;            // 1, 2 or 3 (-1 when the layer bits are 00)
  int32_t is_protected;     // 1 when a CRC follows the header
  int32_t bitrate_kbps;
  float bytes_per_second;   // bitrate_kbps * 1000 / 8
  int32_t sample_rate;      // Hz
  int32_t channel_mode;     // 0 stereo, 1 joint stereo, 2 dual channel, 3 single channel
  int32_t padding;
  int32_t mode_extension;   // only for joint stereo, else -1
  int32_t emphasis;
  int32_t rights_flag;
  int32_t original;
  double duration;          // seconds
  int32_t frame_length;     // bytes of this frame, header included
  int64_t header_offset;    // source offset of the header
};
static_assert(sizeof(MpegInfo) == 72);

// Searches forward from *offset, one byte at a time while *offset is below
// the reader's length minus 10, for a frame sync; moves *offset to it and
// decodes the header there into *info. Returns 1 when the header was valid,
// 0 when it was rejected (the caller steps on by one byte) or when no sync
// was found before the end ("MPEG Header not found" is logged).
// Defined in metaid3.cpp: its messages belong to that module.
int FindMpegHeader(ByteReader* reader, int64_t* offset, MpegInfo* info);

// Decodes the frame header at `offset` into *info: header_offset, the header
// fields, frame_length and the first duration estimate (reader length /
// bit rate). Returns 1 when a frame sync stands there and the header is
// valid, 0 otherwise (*info may then be partly written).
int DecodeMpegHeader(ByteReader* reader, int64_t offset, MpegInfo* info);

// 0 when a valid frame header stands at `offset`, -1 otherwise. Decodes into
// a scratch block of its own and changes nothing but the reader's buffer.
int CheckMpegHeader(ByteReader* reader, int64_t offset);

// The confirmation of a candidate frame (steps of the MP3 driver and of the
// VCD audio search) counts the zero bytes after it and checks the header
// that follows them. Both are done so that a file costs reads in proportion
// to its length, however many false candidates it holds.

// Zero runs already counted, each kept as its first offset and the offset
// that ended the count (a byte that is not 0, or the end of the range).
struct ZeroRuns {
  std::map<int64_t, int64_t> stop_by_first;
};

// The number of zero bytes from `from` on, up to the first byte that is not
// 0 or up to `end` (never read). Each zero byte is read at most once per
// ZeroRuns, which must always be given the same `end`. Counts must start no more than
// kZeroRunReach bytes before an earlier count's start; runs that end further
// back are forgotten.
inline constexpr int64_t kZeroRunReach = 2048;  // above the longest frame (1729 bytes) plus one
int64_t CountZeroBytes(ByteReader* reader, int64_t from, int64_t end, ZeroRuns* runs);

// CheckMpegHeader(scan, offset), reading the header through `ahead` (made on
// first need, a second buffer over the scan's source) unless `scan` holds
// it already: the header after a long zero run lies far ahead of the scan,
// and reading it through the scan's own buffer would throw away and read
// again the bytes the scan goes on with, once per candidate.
int CheckMpegHeaderAhead(ByteReader* scan, std::unique_ptr<ByteReader>* ahead, int64_t offset);

// Looks for a "Xing" header with a frame count between `start` (the ID3v2
// tag length) and min(start + 20000, length / 4). Returns -1 when there is
// none or *info lacks version, layer, bit rate or sample rate; else 0, with
// info->duration replaced when the frame count gives a believable time.
// Only the "Xing" form is looked for, by design ("Info" is not).
int ReadXingHeader(ByteReader* reader, int64_t start, MpegInfo* info);

// The same for a "VBRI" header (frame count 14 bytes after its start).
int ReadVbriHeader(ByteReader* reader, int64_t start, MpegInfo* info);

// ReadXingHeader, and ReadVbriHeader when that returns -1, in one pass over
// the search range: 0 when either header gave its frame count, else -1.
int ReadVbrHeaders(ByteReader* reader, int64_t start, MpegInfo* info);

// Samples per frame for a decoded header; 0 when version or layer is unknown.
int MpegSamplesPerFrame(const MpegInfo* info);
