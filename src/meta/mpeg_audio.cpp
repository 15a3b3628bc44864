// MPEG audio frame headers: decoding, checking, and the Xing and VBRI
// frame counts. The forward search, which logs, is in metaid3.cpp.
#include "meta/mpeg_audio.h"

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

// Common part of the Xing and VBRI readers: finds `tag` and replaces the
// duration by the frame count found `count_offset` bytes after it.
int ReadVbrFrameCount(ByteReader* reader, int64_t start, MpegInfo* info, const char* tag,
                      int count_offset, bool needs_frames_flag) {
  if (info->bitrate_kbps == 0 || info->sample_rate == 0 || info->version == 0 || info->layer == 0)
    return -1;
  int64_t quarter = reader->length / 4;
  int64_t limit = start + 20000;
  int64_t pos = start;
  for (; pos < quarter && pos < limit; ++pos) {
    if (ReadByte(reader, pos) == tag[0] && ReadByte(reader, pos + 1) == tag[1] &&
        ReadByte(reader, pos + 2) == tag[2] && ReadByte(reader, pos + 3) == tag[3])
      break;
  }
  if (pos >= quarter || pos >= limit) return -1;
  if (needs_frames_flag && (ReadByte(reader, pos + 7) & 1) == 0) return -1;
  uint32_t frames = ReadPlain32(reader, pos + count_offset);
  double seconds = static_cast<double>(frames) * MpegSamplesPerFrame(info) / info->sample_rate;
  if (seconds > 0.0 && seconds < kMaxDuration) info->duration = seconds;
  return 0;
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

int MpegSamplesPerFrame(const MpegInfo* info) {
  if (info->layer == 1) return 384;
  if (info->layer == 2) return 1152;
  if (info->layer == 3) return info->version == 1 ? 1152 : 576;
  return 0;
}

int ReadXingHeader(ByteReader* reader, int64_t start, MpegInfo* info) {
  // Flags are the 4 bytes after "Xing"; bit 0 of the last says frames are present.
  return ReadVbrFrameCount(reader, start, info, "Xing", 8, true);
}

int ReadVbriHeader(ByteReader* reader, int64_t start, MpegInfo* info) {
  return ReadVbrFrameCount(reader, start, info, "VBRI", 14, false);
}
