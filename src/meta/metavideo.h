// The MPEG video stream parser of VCD files: the sequence header near the
// start of the file gives the picture size, bit rate and frame rate; the
// duration is estimated from the file size and the bit rate; in a system
// stream the first MPEG audio packet gives the audio values. Every search
// stops after the first 100000 bytes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "meta/byte_reader.h"
#include "meta/mpeg_audio.h"
#include "platform/media_info.h"

// A ByteReader extended by the stream mode; the ByteReader comes first so
// that the audio frame scanner reads the same record.
struct VideoReader {
  ByteReader base;
  int32_t stream_mode;  // 1 MPEG-1 (at the start), 2 MPEG-2 (after a sequence extension)
};

struct VideoInfo {
  uint32_t width;
  uint32_t height;
  double frame_rate;
  uint32_t bitrate_value;  // units of 400 bit/s, MPEG-2 extension bits above bit 17
  double duration;
  uint8_t aspect_ratio;
  int32_t sequence_flag;
};

inline constexpr int64_t kVideoSearchLimit = 99999;  // last offset a search looks at

int ReadVideoByte(VideoReader* reader, int64_t offset);
int64_t FindStartPrefix(VideoReader* reader, int64_t offset);
int64_t FindStartCode(VideoReader* reader, int64_t offset, int code);
int ParseSequenceHeader(VideoReader* reader, int64_t offset, VideoInfo* info);
int ParseSequenceExtension(VideoReader* reader, int64_t offset, VideoInfo* info);
int64_t SkipPacketHeader(VideoReader* reader, int64_t offset);
// The sequence header found anywhere in the search range into *video, and
// the first audio frame after the first audio packet into *audio (all zero
// when there is none). -1 when there is no video to parse.
int ScanSystemStream(VideoReader* reader, VideoInfo* video, MpegInfo* audio);

// Entry point: fills video_bitrate, duration, width, height, bitrate,
// frequency and channels of the record. 0, or -1 when the file cannot be
// opened or its size cannot be taken (logged). A file without video or
// audio is a success with zero values.
int ParseMpegVideoFile(const char* path, MediaInfo* info);

// The same parse over bytes in memory.
int ParseMpegVideoMemory(const uint8_t* data, size_t size, MediaInfo* info);
