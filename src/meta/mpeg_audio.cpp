// MPEG audio frame headers: decoding, checking, and the Xing and VBRI
// frame counts. The forward search, which logs, is in metaid3.cpp.
#include "meta/mpeg_audio.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace {

enum SyncKind { kNoSync, kSyncMpeg12, kSyncMpeg25 };

SyncKind SyncAt(ByteReader* reader, int64_t offset) {
  if (ReadByte(reader, offset) != 0xFF) return kNoSync;
  int b1 = ReadByte(reader, offset + 1);
  if ((b1 & 0xF0) == 0xF0) return kSyncMpeg12;
  if ((b1 & 0xE0) == 0xE0) return kSyncMpeg25;
  return kNoSync;
}

// Bit rates in kbit/s by bit-rate index; index 15 is rejected before lookup.
constexpr int kMpeg1Bitrates[3][15] = {
    {0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448},  // layer I
    {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384},     // layer II
    {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320},      // layer III
};
constexpr int kMpeg2Bitrates[2][15] = {
    {0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256},  // layer I
    {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160},       // layers II and III
};
constexpr int kSampleRates[3][3] = {
    {44100, 48000, 32000},  // MPEG-1
    {22050, 24000, 16000},  // MPEG-2
    {11025, 12000, 8000},   // MPEG-2.5
};

// Believable play times end below twelve hours.
constexpr double kMaxDuration = 43200.0;

// Makes the four bytes at `pos` cached, refilling from `pos` when needed.
// False when fewer than four bytes are left there: no tag can start at or
// after `pos` (unreadable bytes read as 17, which matches no letter).
bool CacheFour(ByteReader* reader, int64_t pos, int64_t limit) {
  if (ByteReaderCached(reader, pos) && pos + 4 <= reader->end) return true;
  // Only up to the end of the search range is read.
  return ByteReaderFillSome(reader, pos, limit - pos + 3) >= 4;
}

// The first place in `span` bytes where the four bytes of `tag` start
// wholly inside them. memchr for the first letter: much faster here than a
// general substring search.
const unsigned char* FindInSpan(const unsigned char* base, size_t span, const char* tag) {
  if (span < 4) return nullptr;
  const unsigned char* last = base + span - 4;
  for (const unsigned char* p = base; p <= last; ++p) {
    p = static_cast<const unsigned char*>(memchr(p, tag[0], static_cast<size_t>(last - p) + 1));
    if (p == nullptr) return nullptr;
    if (memcmp(p + 1, tag + 1, 3) == 0) return p;
  }
  return nullptr;
}

// The first offset in [from, limit) where the four bytes of `tag` start, or
// -1. Each buffered stretch is searched in place.
int64_t FindTag(ByteReader* reader, int64_t from, int64_t limit, const char* tag) {
  for (int64_t pos = from < 0 ? 0 : from; pos < limit;) {
    if (!CacheFour(reader, pos, limit)) return -1;
    int64_t stop = std::min(limit, reader->end - 3);
    const unsigned char* base = reader->buffer + (pos - reader->start);
    const unsigned char* hit = FindInSpan(base, static_cast<size_t>(stop - pos) + 3, tag);
    if (hit != nullptr) return pos + (hit - base);
    pos = stop;
  }
  return -1;
}

bool Complete(const MpegInfo* info) {
  return info->bitrate_kbps != 0 && info->sample_rate != 0 && info->version != 0 && info->layer != 0;
}

// The VBR headers are looked for from the tag's end, within 20000 bytes and
// the first quarter of the file.
int64_t SearchLimit(const ByteReader* reader, int64_t start) {
  return std::min(reader->length / 4, start + 20000);
}

bool XingHasFrames(ByteReader* reader, int64_t xing) {
  // Flags are the 4 bytes after "Xing"; bit 0 of the last says frames are present.
  return (ReadByte(reader, xing + 7) & 1) != 0;
}

// Replaces the duration by the frame count at `count_at` when it gives a
// believable time.
void ApplyFrameCount(ByteReader* reader, int64_t count_at, MpegInfo* info) {
  uint32_t frames = ReadPlain32(reader, count_at);
  double seconds = static_cast<double>(frames) * MpegSamplesPerFrame(info) / info->sample_rate;
  if (seconds > 0.0 && seconds < kMaxDuration) info->duration = seconds;
}

// One pass for both headers: the first "Xing", and the first "VBRI" that
// starts before it (-1 when absent).
void FindVbrTags(ByteReader* reader, int64_t from, int64_t limit, int64_t* xing, int64_t* vbri) {
  *xing = -1;
  *vbri = -1;
  for (int64_t pos = from < 0 ? 0 : from; pos < limit;) {
    if (!CacheFour(reader, pos, limit)) return;
    int64_t stop = std::min(limit, reader->end - 3);
    const unsigned char* base = reader->buffer + (pos - reader->start);
    size_t span = static_cast<size_t>(stop - pos) + 3;
    const unsigned char* x = FindInSpan(base, span, "Xing");
    if (*vbri < 0) {
      size_t before = x != nullptr ? static_cast<size_t>(x - base) + 3 : span;
      if (const unsigned char* v = FindInSpan(base, before, "VBRI")) *vbri = pos + (v - base);
    }
    if (x != nullptr) {
      *xing = pos + (x - base);
      return;
    }
    pos = stop;
  }
}

}  // namespace

int DecodeMpegHeader(ByteReader* reader, int64_t offset, MpegInfo* info) {
  SyncKind sync = SyncAt(reader, offset);
  if (sync == kNoSync) return 0;
  int b1 = ReadByte(reader, offset + 1);
  int b2 = ReadByte(reader, offset + 2);
  int b3 = ReadByte(reader, offset + 3);

  info->header_offset = offset;
  if (b1 & 0x08) {
    if (sync == kSyncMpeg25) return 0;
    info->version = 1;
  } else {
    info->version = sync == kSyncMpeg25 ? 3 : 2;
  }
  switch ((b1 >> 1) & 3) {
    case 1: info->layer = 3; break;
    case 2: info->layer = 2; break;
    case 3: info->layer = 1; break;
    default: info->layer = -1; return 0;
  }
  info->is_protected = (b1 & 1) == 0;

  int rate_index = (b2 >> 2) & 3;
  int bitrate_index = b2 >> 4;
  if (rate_index == 3 || bitrate_index == 15) return 0;
  if (info->version == 1)
    info->bitrate_kbps = kMpeg1Bitrates[info->layer - 1][bitrate_index];
  else
    info->bitrate_kbps = kMpeg2Bitrates[info->layer == 1 ? 0 : 1][bitrate_index];
  info->sample_rate = kSampleRates[info->version - 1][rate_index];
  info->bytes_per_second = info->bitrate_kbps * 1000 / 8.0f;
  info->padding = (b2 >> 1) & 1;

  info->channel_mode = b3 >> 6;
  info->mode_extension = info->channel_mode == 1 ? (b3 >> 4) & 3 : -1;
  info->rights_flag = (b3 >> 3) & 1;
  info->original = (b3 >> 2) & 1;
  info->emphasis = b3 & 3;

  // The product is truncated before the division. MPEG-2 layer II shares the
  // layer III factor on purpose: stored lengths of such files depend on it.
  int kbps = info->bitrate_kbps;
  int rate = info->sample_rate;
  if (info->version == 1) {
    if (info->layer == 1)
      info->frame_length = static_cast<int>(kbps * 48000.0) / rate + 4 * info->padding;
    else
      info->frame_length = static_cast<int>(kbps * 144000.0) / rate + info->padding;
  } else if (info->version == 2) {
    if (info->layer == 1)
      info->frame_length = static_cast<int>(kbps * 24000.0) / rate + 4 * info->padding;
    else
      info->frame_length = static_cast<int>(kbps * 72000.0) / rate + info->padding;
  } else {
    return 0;  // MPEG-2.5 is not supported
  }
  if (info->frame_length == 0 || kbps == 0) return 0;  // free format

  // First estimate: the whole length at the first frame's rate, leading tag included.
  info->duration = static_cast<double>(reader->length) / kbps * 0.008;
  return 1;
}

int CheckMpegHeader(ByteReader* reader, int64_t offset) {
  MpegInfo scratch = {};
  return DecodeMpegHeader(reader, offset, &scratch) == 1 ? 0 : -1;
}

int64_t CountZeroBytes(ByteReader* reader, int64_t from, int64_t end, ZeroRuns* runs) {
  if (from >= end) return 0;
  std::map<int64_t, int64_t>& stops = runs->stop_by_first;
  while (!stops.empty() && stops.begin()->second < from - kZeroRunReach) stops.erase(stops.begin());
  auto next = stops.upper_bound(from);
  if (next != stops.begin()) {
    auto known = std::prev(next);
    if (from <= known->second) return known->second - from;  // inside a run already counted
  }
  int64_t at = from;
  while (at < end) {
    if (next != stops.end() && at == next->first) {  // the rest of this run is known
      at = next->second;
      stops.erase(next);
      break;
    }
    if (ReadByte(reader, at) != 0) break;
    ++at;
  }
  if (at > from) stops.emplace(from, at);  // a count of 0 costs one byte again, not a record
  return at - from;
}

int CheckMpegHeaderAhead(ByteReader* scan, std::unique_ptr<ByteReader>* ahead, int64_t offset) {
  if (ByteReaderCached(scan, offset) && offset + 4 <= scan->end) return CheckMpegHeader(scan, offset);
  if (!*ahead) {
    *ahead = std::make_unique<ByteReader>();
    ByteReaderAttachSame(ahead->get(), scan);
  }
  return CheckMpegHeader(ahead->get(), offset);
}

int MpegSamplesPerFrame(const MpegInfo* info) {
  if (info->layer == 1) return 384;
  if (info->layer == 2) return 1152;
  if (info->layer == 3) return info->version == 1 ? 1152 : 576;
  return 0;
}

int ReadXingHeader(ByteReader* reader, int64_t start, MpegInfo* info) {
  if (!Complete(info)) return -1;
  int64_t xing = FindTag(reader, start, SearchLimit(reader, start), "Xing");
  if (xing < 0 || !XingHasFrames(reader, xing)) return -1;
  ApplyFrameCount(reader, xing + 8, info);
  return 0;
}

int ReadVbriHeader(ByteReader* reader, int64_t start, MpegInfo* info) {
  if (!Complete(info)) return -1;
  int64_t vbri = FindTag(reader, start, SearchLimit(reader, start), "VBRI");
  if (vbri < 0) return -1;
  ApplyFrameCount(reader, vbri + 14, info);
  return 0;
}

int ReadVbrHeaders(ByteReader* reader, int64_t start, MpegInfo* info) {
  if (!Complete(info)) return -1;
  int64_t limit = SearchLimit(reader, start);
  int64_t xing, vbri;
  FindVbrTags(reader, start, limit, &xing, &vbri);
  if (xing >= 0 && XingHasFrames(reader, xing)) {
    ApplyFrameCount(reader, xing + 8, info);
    return 0;
  }
  if (vbri < 0 && xing >= 0) vbri = FindTag(reader, xing + 1, limit, "VBRI");
  if (vbri < 0) return -1;
  ApplyFrameCount(reader, vbri + 14, info);
  return 0;
}
