// The head of an MPEG program stream (.mpg, .vob) as libavformat's "mpeg"
// demuxer and its parsers read it. The library's stream analysis reads such
// a file until its packets reach the analysis's size limit or a stream has
// 5 s analysed (7 s before every stream is known); this scan walks that
// whole part (the window) pack by pack
// and says whether anything in it could give the record another value than
// its first second does: a stream that appears later, audio frames of
// another rate, channel count or bit rate, video sequence headers that
// change the frame rate or the codec, video time stamps whose step (from
// which the analysis guesses the frame rate, and with it the last frame's
// end) changes. The generic probe (meta/probe_tuning) then lets the analysis
// read only a short head.
//
// The scan reads only the bytes it is given; every loop is bounded by them.
#pragma once

#include <cstddef>
#include <cstdint>

// Why the window may hold a value the head does not show, or kNone.
enum class PsDoubt : int32_t {
  kNone,
  kHeaderTag,        // "IMKH" or "Sofdec" at the start: the demuxer picks other codecs
  kStreamMap,        // a program stream map names the codecs
  kStreamKind,       // a stream of a kind not checked here (DTS, TrueHD, MLP, VC-1, ...)
  kLateStream,       // a stream that first appears where the short analysis may not reach
  kTooManyStreams,   // more than kPsMaxStreams
  kAudioFrames,      // an audio frame header missing where the last one ends, or unlike the first
  kSequenceHeaders,  // MPEG video sequence headers unlike the first
  kVideoTimes,       // video time stamps that do not step evenly, or too few of them
  kLargeFrame,       // a video frame too large for the window's margin
  kWindowOpen,       // the bytes given ended before the window did
};

enum class PsKind : int32_t {
  kVideo,       // MPEG-1/2 video (stream ids 0x1E0-0x1EF)
  kMpegAudio,   // MPEG audio layers 1-3 (0x1C0-0x1DF)
  kAc3,         // AC-3 in private stream 1 (sub-stream ids 0x80-0x87, 0xC0-0xCF)
  kNavigation,  // DVD navigation packets (private stream 2)
  kLpcm,        // DVD LPCM (0xA0-0xAF): its decoder takes every value from the first packet
  kSubtitle,    // DVD subtitles (0x20-0x3F): no value of its own, but it ends the record's stream loop
};

struct PsStream {
  int32_t id;  // as the demuxer numbers it: the start code (0x1E0, 0x1C0, 0x1BF) or the sub-stream id (0x80)
  PsKind kind;
  // Audio: the values every frame header of the window gives.
  int32_t layer;  // MPEG audio 1-3; 0 for AC-3
  int32_t sample_rate;
  int32_t channels;
  int64_t bit_rate;
  // Video: the sequence headers (all alike) and the time stamps.
  int32_t mpeg2;           // 1 when the sequence headers carry the MPEG-2 extension
  int32_t frame_rate_num;  // the frame rate they give
  int32_t frame_rate_den;
  int64_t step;             // 90 kHz ticks between successive time stamps; 0 when not needed
  int32_t stamps;           // time stamps in the window
};

inline constexpr int kPsMaxStreams = 8;

struct PsScan {
  PsDoubt doubt;
  int32_t count;  // streams, in the order the demuxer makes them
  PsStream streams[kPsMaxStreams];
  int64_t window_end;  // file offset where the window ended
  // µs the short analysis may be given (its max_analyze_duration) so that it
  // stops after every stream's first frame and, for MPEG-2 video, before a
  // third frame time (the analysis then takes the sequence header's frame
  // rate); 0 when no such limit is foreseen and 0.8 s serves instead.
  int64_t short_analysis;
};

// Told, as the scan moves on through its bytes, the offset it has reached
// (first 0, then every kPsReadAheadStep bytes or so), so that a caller
// whose bytes are a mapped file can ask the disk for what comes next.
using PsReadAhead = void (*)(int64_t reached, void* context);
inline constexpr int64_t kPsReadAheadStep = 256 << 10;

// Scans the first `size` bytes of a file (`whole` when that is the file)
// for an analysis limited to `probesize` bytes of packets.
PsScan ScanProgramStream(const uint8_t* data, size_t size, bool whole, int64_t probesize,
                         PsReadAhead ahead = nullptr, void* context = nullptr);

// The frame rate the analysis settles on for a video stream whose time
// stamps step by `step` ticks of 90 kHz (it reduces 90000 / step).
void PsStepRate(int64_t step, int* num, int* den);
