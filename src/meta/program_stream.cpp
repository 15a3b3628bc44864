#include "meta/program_stream.h"

#include <algorithm>
#include <cstring>
#include <numeric>
#include <vector>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace {

constexpr int64_t kSyncReach = 100000;      // bytes the demuxer searches for a start code per call
constexpr int64_t kLagSlack = 1 << 20;      // payload read past the limit: what parsers may still hold
constexpr int64_t kLargestFrame = kLagSlack - 65536;
constexpr int kMinStamps = 24;              // video time stamps the analysis surely reads: above its 20
constexpr int64_t kMinPeriod = 181;         // the analysis's frame-rate rule needs more than 180 ticks
constexpr int64_t kMaxPeriod = 3754;        // 24 frames a second: 24 frames last 1 s
// µs: the analysis's limit once every stream is known (its parameters, 20
// frame times of MPEG-2 video, the sequence header as extradata), which the
// probe checks on the short analysis; before that it is 7 s.
constexpr int64_t kLongestAnalysis = 5000000;
constexpr int64_t kSureAnalysis = 3000000;     // µs of audio the analysis surely reads (it stops at 5 s)
constexpr int64_t kShortReach = 1000000;       // µs of audio after which the short analysis (0.8 s) has stopped
constexpr int kFrameMargin = 4;             // audio frames whose duration may not count
constexpr size_t kForeseenFrames = 24;      // audio frames whose ends the short analysis's limit is chosen by

// A stream's payload as the demuxer hands it out, joined from the packets.
struct Piece {
  int64_t at;       // file offset
  int64_t length;
  int64_t joined;   // offset within the joined payload
};

struct Joined {
  std::vector<Piece> pieces;
  int64_t size = 0;

  void Add(int64_t at, int64_t length) {
    if (length <= 0) return;
    pieces.push_back({at, length, size});
    size += length;
  }
  // File offset of the payload piece holding byte `offset`: where the packet
  // that completes what ends there was read.
  int64_t PieceAt(int64_t offset) const {
    auto it = std::upper_bound(pieces.begin(), pieces.end(), offset,
                               [](int64_t o, const Piece& p) { return o < p.joined; });
    return it == pieces.begin() || offset >= size ? INT64_MAX : (it - 1)->at;
  }
  // Copies up to n bytes from `offset` of the joined payload; the count copied.
  size_t Gather(const uint8_t* data, int64_t offset, uint8_t* out, size_t n) const {
    if (offset < 0 || offset >= size) return 0;
    auto it = std::upper_bound(pieces.begin(), pieces.end(), offset,
                               [](int64_t o, const Piece& p) { return o < p.joined; });
    size_t got = 0;
    // Bounded by the pieces.
    for (--it; got < n && it != pieces.end(); ++it) {
      int64_t from = std::max<int64_t>(offset + static_cast<int64_t>(got) - it->joined, 0);
      size_t take = static_cast<size_t>(std::min<int64_t>(it->length - from, static_cast<int64_t>(n - got)));
      memcpy(out + got, data + it->at + from, take);
      got += take;
    }
    return got;
  }
};

// One audio frame header as the library's parsers decode it.
struct AudioHeader {
  int32_t layer = 0;  // 0 for AC-3
  int32_t sample_rate = 0;
  int32_t channels = 0;
  int64_t bit_rate = 0;
  int32_t frame_size = 0;  // bytes
  int32_t samples = 0;
  bool other_codec = false;  // E-AC-3: a codec of its own
  bool operator==(const AudioHeader& o) const {
    return layer == o.layer && sample_rate == o.sample_rate && channels == o.channels && bit_rate == o.bit_rate;
  }
};

uint32_t Be32(const uint8_t* p) { return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3]; }

// MPEG audio, as the library's header check and decoder read the 4 bytes.
bool DecodeMpegAudio(const uint8_t* p, AudioHeader* h) {
  static const int16_t kRates[2][3][15] = {
      {{0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448},
       {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384},
       {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320}},
      {{0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256},
       {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160},
       {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160}}};
  static const int32_t kFrequencies[3] = {44100, 48000, 32000};
  uint32_t head = Be32(p);
  if ((head & 0xffe00000) != 0xffe00000 || (head & (3 << 19)) == 1 << 19 || (head & (3 << 17)) == 0 ||
      (head & (0xf << 12)) == 0xf << 12 || (head & (3 << 10)) == 3 << 10)
    return false;
  int lsf = (head & (1 << 20)) ? ((head & (1 << 19)) ? 0 : 1) : 1;
  int mpeg25 = (head & (1 << 20)) ? 0 : 1;
  h->layer = 4 - static_cast<int>((head >> 17) & 3);
  h->sample_rate = kFrequencies[(head >> 10) & 3] >> (lsf + mpeg25);
  h->channels = ((head >> 6) & 3) == 3 ? 1 : 2;
  int index = (head >> 12) & 0xf;
  if (index == 0) return false;  // free format: the parser never syncs on it
  int kbps = kRates[lsf][h->layer - 1][index];
  int padding = (head >> 9) & 1;
  h->bit_rate = kbps * 1000LL;
  if (h->layer == 1) {
    h->frame_size = ((kbps * 12000) / h->sample_rate + padding) * 4;
    h->samples = 384;
  } else if (h->layer == 2) {
    h->frame_size = (kbps * 144000) / h->sample_rate + padding;
    h->samples = 1152;
  } else {
    h->frame_size = (kbps * 144000) / (h->sample_rate << lsf) + padding;
    h->samples = lsf ? 576 : 1152;
  }
  h->other_codec = false;
  return h->frame_size >= 4;
}

// AC-3 (and, to refuse it, E-AC-3), as the library's header parser reads the 7 bytes.
bool DecodeAc3(const uint8_t* p, AudioHeader* h) {
  static const int16_t kKbps[19] = {32,  40,  48,  56,  64,  80,  96,  112, 128, 160,
                                    192, 224, 256, 320, 384, 448, 512, 576, 640};
  static const int32_t kFrequencies[3] = {48000, 44100, 32000};
  static const int8_t kChannels[8] = {2, 1, 2, 3, 3, 4, 4, 5};
  if (p[0] != 0x0B || p[1] != 0x77) return false;
  int bsid = p[5] >> 3;
  if (bsid > 16) return false;
  *h = AudioHeader{};
  if (bsid > 10) {
    h->other_codec = true;
    return true;
  }
  int fscod = p[4] >> 6, frmsizecod = p[4] & 0x3f;
  if (fscod == 3 || frmsizecod > 37) return false;
  int acmod = p[6] >> 5;
  int bit = 3;  // bits of byte 6 used so far
  if (acmod == 2) {
    bit += 2;
  } else {
    if ((acmod & 1) && acmod != 1) bit += 2;
    if (acmod & 4) bit += 2;
  }
  int lfe = (bit < 8 ? (p[6] >> (7 - bit)) : (p[7] >> (15 - bit))) & 1;
  int shift = std::max(bsid, 8) - 8;
  int kbps = kKbps[frmsizecod >> 1];
  int words = fscod == 0 ? 2 * kbps : fscod == 2 ? 3 * kbps : kbps * 1536000 / (44100 * 16) + (frmsizecod & 1);
  h->sample_rate = kFrequencies[fscod] >> shift;
  h->bit_rate = (kbps * 1000LL) >> shift;
  h->channels = kChannels[acmod] + lfe;
  h->frame_size = words * 2;
  h->samples = 1536;
  return true;
}

int64_t Timestamp(const uint8_t* p) {
  return int64_t{p[0] & 0x0e} << 29 | int64_t{(uint32_t{p[1]} << 8 | p[2]) >> 1} << 15 |
         int64_t{(uint32_t{p[3]} << 8 | p[4]) >> 1};
}

// Per stream, while the window is read.
struct Track {
  PsStream out{};
  Joined payload;
  // Audio: the chain of frames, each header where the one before ends.
  bool synced = false;
  int64_t next = 0;         // joined offset of the next header (or of the sync search)
  int64_t frames = 0;       // frames whose header was read
  AudioHeader first;
  int64_t sure_frames = 0;  // frames after which the analysis has surely read on
  int64_t last_frames = 0;  // frames after which it has surely stopped
  int64_t late_frames = 0;  // frames after which the short analysis has stopped
  std::vector<int64_t> ends;  // joined offsets where the first frames end
  int64_t first_at = -1;      // file offset of the stream's first packet
  // Video: the time stamps and where each packet carrying one starts.
  std::vector<int64_t> times;
  std::vector<int64_t> stamp_at;      // file offset of the packet
  std::vector<int64_t> stamp_joined;  // joined offset of its payload
};

// Audio frames until the analysis's measure of a stream (the frames after
// its second, each the parser's sample count in 90 kHz ticks, rounded down)
// reaches `micros`.
int64_t FramesFor(const AudioHeader& h, int64_t micros) {
  int64_t ticks = int64_t{h.samples} * 90000 / h.sample_rate;
  if (ticks <= 0) return INT64_MAX / 2;
  int64_t frames = (micros * 9 / 100 + ticks - 1) / ticks;  // µs to 90 kHz ticks, rounded up
  return frames + 2 + kFrameMargin;
}

// Follows an audio stream's frames through what has arrived; false when a
// header is missing or unlike the first.
bool FollowFrames(const uint8_t* data, Track* t) {
  const bool mpeg = t->out.kind == PsKind::kMpegAudio;
  const size_t need = mpeg ? 4 : 7;
  uint8_t head[8];
  if (!t->synced) {
    // The parsers look for the first header byte by byte, from the first byte.
    while (t->next + static_cast<int64_t>(need) <= t->payload.size) {
      uint8_t window[4096 + 8];
      size_t got = t->payload.Gather(data, t->next, window, sizeof window);
      if (got < need) break;
      size_t i = 0;
      for (; i + need <= got; ++i) {
        AudioHeader h;
        if (mpeg ? DecodeMpegAudio(window + i, &h) : DecodeAc3(window + i, &h)) {
          if (h.other_codec) return false;
          t->synced = true;
          t->first = h;
          t->next += static_cast<int64_t>(i);
          t->sure_frames = FramesFor(h, kSureAnalysis);
          t->last_frames = FramesFor(h, kLongestAnalysis);
          t->late_frames = FramesFor(h, kShortReach);
          break;
        }
      }
      if (t->synced) break;
      t->next += static_cast<int64_t>(i);
    }
    if (!t->synced) return true;
  }
  // Bounded: every step moves past a frame of at least 4 bytes.
  while (t->next + static_cast<int64_t>(need) <= t->payload.size) {
    AudioHeader h;
    if (t->payload.Gather(data, t->next, head, need) < need) break;
    if (!(mpeg ? DecodeMpegAudio(head, &h) : DecodeAc3(head, &h)) || h.other_codec || !(h == t->first)) return false;
    t->next += h.frame_size;
    ++t->frames;
    if (t->ends.size() < kForeseenFrames) t->ends.push_back(t->next);
  }
  return true;
}

// The offset of the next byte 1 that follows two zero bytes, from `from`
// (at least 2) to `size`, or -1: the end of a start code prefix. A prefix
// is rare in coded pictures, so this costs what reading the bytes costs:
// 32 or 16 positions at a time where the processor allows.
int64_t NextPrefixEndBytewise(const uint8_t* p, int64_t k, int64_t size) {
  for (; k < size; ++k)
    if (p[k] == 1 && p[k - 1] == 0 && p[k - 2] == 0) return k;
  return -1;
}

#if defined(__x86_64__)
__attribute__((target("avx2"))) int64_t NextPrefixEndAvx2(const uint8_t* p, int64_t k, int64_t size) {
  const __m256i zero = _mm256_setzero_si256(), one = _mm256_set1_epi8(1);
  // Bounded: each round moves on by 32.
  for (; k + 32 <= size; k += 32) {
    const uint8_t* at = p + k - 2;
    __m256i first = _mm256_cmpeq_epi8(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(at)), zero);
    __m256i second = _mm256_cmpeq_epi8(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(at + 1)), zero);
    __m256i third = _mm256_cmpeq_epi8(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(at + 2)), one);
    __m256i hits = _mm256_and_si256(_mm256_and_si256(first, second), third);
    unsigned mask = static_cast<unsigned>(_mm256_movemask_epi8(hits));
    if (mask != 0) return k + __builtin_ctz(mask);
  }
  return NextPrefixEndBytewise(p, k, size);
}

int64_t NextPrefixEndSse2(const uint8_t* p, int64_t k, int64_t size) {
  const __m128i zero = _mm_setzero_si128(), one = _mm_set1_epi8(1);
  // Bounded: each round moves on by 16.
  for (; k + 16 <= size; k += 16) {
    const uint8_t* at = p + k - 2;
    __m128i first = _mm_cmpeq_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(at)), zero);
    __m128i second = _mm_cmpeq_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(at + 1)), zero);
    __m128i third = _mm_cmpeq_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(at + 2)), one);
    unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(_mm_and_si128(_mm_and_si128(first, second), third)));
    if (mask != 0) return k + __builtin_ctz(mask);
  }
  return NextPrefixEndBytewise(p, k, size);
}
#endif

int64_t NextPrefixEnd(const uint8_t* p, int64_t from, int64_t size) {
#if defined(__x86_64__)
  static const bool avx2 = __builtin_cpu_supports("avx2");
  return avx2 ? NextPrefixEndAvx2(p, from, size) : NextPrefixEndSse2(p, from, size);
#else
  return NextPrefixEndBytewise(p, from, size);
#endif
}

// Every sequence header of a video stream's window must be the first one
// again (picture size, frame rate, matrices), each followed, as the next
// start code, by the same MPEG-2 sequence extension or each by none, and no
// sequence extension may stand anywhere else: the codec and frame rate the
// parser sets from them then stay what the first one set. No picture may
// repeat a field: every frame then lasts one frame period.
bool SameSequences(const uint8_t* data, const Joined& video, PsStream* out) {
  uint8_t first[136], current[136], first_extension[6] = {};
  size_t first_size = 0;
  int first_has_extension = -1;  // not known until the start code after the first header
  bool after_header = false;
  for (const Piece& piece : video.pieces) {
    const uint8_t* base = data + piece.at;
    int64_t k = 0;
    // Bounded: each hit moves on by one byte.
    while (k < piece.length) {
      int64_t at = -1;
      // A prefix across the start of the piece is read through the joined payload.
      for (; k < 2 && k < piece.length && at < 0; ++k) {
        uint8_t prefix[2];
        if (base[k] == 1 && video.Gather(data, piece.joined + k - 2, prefix, 2) == 2 && prefix[0] == 0 &&
            prefix[1] == 0)
          at = k;
      }
      if (at < 0 && k >= 2) at = NextPrefixEnd(base, k, piece.length);
      if (at < 0) {
        if (k >= 2) break;
        continue;
      }
      k = at + 1;
      const int64_t joined = piece.joined + at;
      uint8_t code[2];
      if (at + 2 < piece.length) {
        code[0] = base[at + 1], code[1] = base[at + 2];
      } else if (video.Gather(data, joined + 1, code, 2) < 2) {
        break;  // its frame ends past the window
      }
      if (code[0] != 0xB3 && code[0] != 0xB5 && !after_header) continue;  // slices and the like
      const bool extension = code[0] == 0xB5 && (code[1] >> 4) == 1;
      if (after_header) {
        after_header = false;
        uint8_t bytes[6] = {};
        if (extension && video.Gather(data, joined + 2, bytes, 6) < 6) break;
        if (first_has_extension < 0) {
          first_has_extension = extension;
          memcpy(first_extension, bytes, 6);
        } else if (extension != (first_has_extension == 1) || memcmp(bytes, first_extension, 6) != 0) {
          return false;
        }
        if (extension) continue;
      } else if (extension) {
        return false;  // a sequence extension away from its header
      }
      if (code[0] == 0xB5 && (code[1] >> 4) == 8) {
        // A picture coding extension: a repeated field makes the parser's
        // frame duration one and a half or three frames.
        uint8_t picture[4];
        if (at + 5 < piece.length) {
          memcpy(picture, base + at + 2, 4);
        } else if (video.Gather(data, joined + 2, picture, 4) < 4) {
          break;
        }
        if (picture[3] & 2) return false;
        continue;
      }
      if (code[0] != 0xB3) continue;
      uint8_t head[8];
      if (video.Gather(data, joined + 2, head, 8) < 8) break;
      size_t size = 8;
      bool non_intra = head[7] & 1;
      if (head[7] & 2) {  // an intra matrix, then the non-intra flag in its last byte
        size = 72;
        if (video.Gather(data, joined + 2, current, size) < size) break;
        non_intra = current[71] & 1;
      }
      if (non_intra) size += 64;
      if (video.Gather(data, joined + 2, current, size) < size) break;
      if (first_size == 0) {
        memcpy(first, current, size);
        first_size = size;
      } else if (size != first_size || memcmp(current, first, size) != 0) {
        return false;
      }
      after_header = true;
    }
  }
  if (first_size == 0 || first_has_extension < 0) return false;
  // The frame rate the parser sets: the table's, times the extension's factors.
  static const int32_t kRates[9][2] = {{0, 1},  {24000, 1001}, {24, 1}, {25, 1},   {30000, 1001},
                                       {30, 1}, {50, 1},       {60000, 1001}, {60, 1}};
  const int code = first[3] & 0xf;
  if (code < 1 || code > 8) return false;
  out->mpeg2 = first_has_extension;
  out->frame_rate_num = kRates[code][0];
  out->frame_rate_den = kRates[code][1];
  if (first_has_extension) {
    out->frame_rate_num *= ((first_extension[5] >> 5) & 3) + 1;
    out->frame_rate_den *= (first_extension[5] & 0x1f) + 1;
  }
  return true;
}

}  // namespace

void PsStepRate(int64_t step, int* num, int* den) {
  int64_t g = std::gcd(int64_t{90000}, step);
  *num = static_cast<int>(90000 / g);
  *den = static_cast<int>(step / g);
}

namespace {

// The start code the demuxer finds first from `from`: the offset of its code
// byte, or -1. Each search call reads at most kSyncReach bytes and forgets
// the bytes before, so a start code across such a border is not seen.
int64_t NextStartCode(const uint8_t* data, int64_t size, int64_t from) {
  // Bounded: each round moves on by kSyncReach, each hit by one byte.
  for (int64_t chunk = from; chunk < size; chunk += kSyncReach) {
    const int64_t limit = std::min(size, chunk + kSyncReach);
    int64_t at = chunk + 2;
    // The next start code mostly follows within a pack header's few bytes.
    for (const int64_t near = std::min(limit - 1, at + 32); at < near; ++at)
      if (data[at] == 1 && data[at - 1] == 0 && data[at - 2] == 0) return at + 1;
    while (at + 1 < limit) {
      const void* hit = memchr(data + at, 1, static_cast<size_t>(limit - 1 - at));
      if (hit == nullptr) break;
      const int64_t p = static_cast<const uint8_t*>(hit) - data;
      if (data[p - 1] == 0 && data[p - 2] == 0) return p + 1;
      at = p + 1;
    }
  }
  return -1;
}

// The DVD test the demuxer makes on the first private stream 2 packet
// (`len` bytes at `p`): a presentation or data search information block.
bool DvdNavigation(const uint8_t* p, int64_t len) {
  auto clock = [p](int at) {
    return (p[at] >> 4) * 10 + (p[at] & 0x0f) <= (at == 0x19 || at == 0x1d ? 23 : 59) && (p[at] & 0x0f) < 10;
  };
  if (len == 980 && p[0] == 0)
    return clock(0x19) && clock(0x1a) && clock(0x1b) && Be32(p + 0x11) >= Be32(p + 0x0d);
  if (len == 1018 && p[0] == 1) return clock(0x1d) && clock(0x1e) && clock(0x1f);
  return false;
}

struct Scanner {
  const uint8_t* data = nullptr;
  int64_t size = 0;
  bool whole = false;
  PsScan scan{};
  std::vector<Track> tracks;
  int64_t payload = 0;  // bytes of packets handed out so far
  int sofdec = 0;       // the demuxer's state after the first private stream 2 packet
  bool dvd = false;
  bool ended = false;   // the window is complete
  PsReadAhead ahead = nullptr;
  void* ahead_context = nullptr;
  int64_t sure_end = -1;   // file offset the analysis surely reads to (-1: not met yet)
  int64_t sure_payload = 0;  // payload the analysis surely reads

  void Doubt(PsDoubt why) {
    if (scan.doubt == PsDoubt::kNone) scan.doubt = why;
    ended = true;
  }
  // The data ended inside a packet's header: what the demuxer makes of a
  // file cut there is not followed.
  void OutOfData() { Doubt(PsDoubt::kWindowOpen); }
  void Sure(int64_t at) {
    if (sure_end < 0 || at < sure_end) sure_end = at;
  }

  Track* Find(int32_t id) {
    for (Track& t : tracks)
      if (t.out.id == id) return &t;
    return nullptr;
  }

  // A packet of `id` with `len` payload bytes at `at`: the stream the
  // demuxer makes of it, or null when it skips it (ended set on doubt).
  Track* StreamFor(int32_t id, bool pcm_dvd) {
    if (Track* t = Find(id)) return t;
    PsKind kind;
    if (id >= 0x1e0 && id <= 0x1ef) {
      kind = PsKind::kVideo;
    } else if (id == 0x1bf) {
      kind = PsKind::kNavigation;
    } else if (id >= 0x1c0 && id <= 0x1df) {
      kind = PsKind::kMpegAudio;
    } else if ((id >= 0x80 && id <= 0x87) || (id >= 0xc0 && id <= 0xcf)) {
      kind = PsKind::kAc3;
    } else if (id >= 0xa0 && id <= 0xaf && pcm_dvd) {
      kind = PsKind::kLpcm;
    } else if (id >= 0x20 && id <= 0x3f) {
      kind = PsKind::kSubtitle;
    } else if ((id >= 0x88 && id <= 0x8f) || (id >= 0x98 && id <= 0xbf) || (id >= 0xfd55 && id <= 0xfd5f)) {
      Doubt(PsDoubt::kStreamKind);
      return nullptr;
    } else {
      return nullptr;
    }
    // A stream the short analysis cannot have met would only cost it a second, full analysis.
    for (const Track& t : tracks) {
      if (t.synced && t.frames >= t.late_frames) {
        Doubt(PsDoubt::kLateStream);
        return nullptr;
      }
    }
    if (tracks.size() >= kPsMaxStreams) {
      Doubt(PsDoubt::kTooManyStreams);
      return nullptr;
    }
    tracks.emplace_back();
    tracks.back().out.id = id;
    tracks.back().out.kind = kind;
    return &tracks.back();
  }

  // One packet handed out: payload [at, at + len) of `t`, its time stamp.
  void Packet(Track* t, int64_t start, int64_t at, int64_t len, int64_t dts) {
    if (t->first_at < 0) t->first_at = start;
    t->payload.Add(at, len);
    payload += len;
    if (t->out.kind == PsKind::kVideo && dts >= 0) {
      t->times.push_back(dts);
      t->stamp_at.push_back(start);
      t->stamp_joined.push_back(t->payload.size - len);
    }
    if (t->out.kind == PsKind::kMpegAudio || t->out.kind == PsKind::kAc3) {
      int64_t before = t->frames;
      if (!FollowFrames(data, t)) return Doubt(PsDoubt::kAudioFrames);
      if (t->synced && before < t->sure_frames && t->frames >= t->sure_frames) Sure(start);
      // The analysis has stopped by the time this stream's frames reach 7 s.
      if (t->synced && t->frames >= t->last_frames) ended = true;
    }
    if (sure_end < 0 && payload >= sure_payload) Sure(start);
  }

  int64_t Run(int64_t probesize);
  int64_t OnePacket(int64_t pos);
  void Conclude(int64_t probesize, bool by_size);
  int64_t StopFor(int64_t limit) const;
  int64_t ShortAnalysis() const;
};

// Where (the file offset of the packet) an analysis limited to `limit` µs
// stops: at the packet of a stream whose frames after its second add up to
// the limit, counted as the parsers give them; INT64_MAX when not foreseen.
int64_t Scanner::StopFor(int64_t limit) const {
  int64_t stop = INT64_MAX;
  for (const Track& t : tracks) {
    if (t.out.kind == PsKind::kMpegAudio || t.out.kind == PsKind::kAc3) {
      const int64_t ticks = int64_t{t.first.samples} * 90000 / t.first.sample_rate;
      // Bounded by the frames kept.
      for (size_t j = 2; j < t.ends.size(); ++j) {
        if ((static_cast<int64_t>(j) - 2) * ticks * 100 / 9 < limit) continue;
        stop = std::min(stop, t.payload.PieceAt(t.ends[j] - 1));
        break;
      }
    } else if (t.out.kind == PsKind::kVideo) {
      // Frame j is handed out when frame j + 1 starts: every frame a stamp.
      const int64_t ticks = int64_t{90000} * t.out.frame_rate_den / std::max(1, t.out.frame_rate_num);
      for (size_t j = 2; j + 1 < t.stamp_at.size(); ++j) {
        if ((static_cast<int64_t>(j) - 2) * ticks * 100 / 9 < limit) continue;
        stop = std::min(stop, t.stamp_at[j + 1]);
        break;
      }
    }
  }
  return stop;
}

// The smallest of a few limits at which the analysis is foreseen to stop
// after every stream has handed out a frame; 0 when none is. With fewer
// than 16 frame times the analysis guesses MPEG-2's frame rate from a table
// of rates by how evenly the times fit, which mostly, not always, gives the
// sequence header's rate; the short analysis's values are checked after it
// all the same: a wrong guess costs a second analysis, never a value.
int64_t Scanner::ShortAnalysis() const {
  static const int64_t kLimits[] = {1, 40000, 80000, 120000, 200000, 300000};
  for (const Track& t : tracks)
    if (t.out.kind == PsKind::kSubtitle) return 0;  // its parser may hold a unit back
  for (int64_t limit : kLimits) {
    const int64_t stop = StopFor(limit);
    if (stop == INT64_MAX) continue;
    bool fits = true;
    for (const Track& t : tracks) {
      fits = fits && t.first_at < stop;
      if (t.out.kind == PsKind::kMpegAudio || t.out.kind == PsKind::kAc3) {
        fits = fits && !t.ends.empty() && t.payload.PieceAt(t.ends[0] - 1) < stop;
      } else if (t.out.kind == PsKind::kVideo) {
        int64_t starts = std::count_if(t.stamp_at.begin(), t.stamp_at.end(), [stop](int64_t at) { return at < stop; });
        fits = fits && starts >= 2;
      }
    }
    if (fits) return limit;
  }
  return 0;
}

// Reads from `pos` to the end of the next packet the demuxer hands out (or
// skips); returns where the demuxer goes on, or -1 at the end of the data.
int64_t Scanner::OnePacket(int64_t pos) {
  const int64_t found = NextStartCode(data, size, pos);
  if (found < 0) {
    ended = true;  // the end of the file, or of the bytes given
    if (!whole && size - pos > 3) Doubt(PsDoubt::kWindowOpen);
    return -1;
  }
  int32_t code = 0x100 | data[found];
  const int64_t start = found - 3;
  const int64_t last_sync = found + 1;
  int64_t at = last_sync;
  auto have = [&](int64_t n) { return at + n <= size; };
  if (code == 0x1ba || code == 0x1bb) return last_sync;
  if (code == 0x1bc) {
    Doubt(PsDoubt::kStreamMap);
    return -1;
  }
  if (code == 0x1be) {
    if (!have(2)) return OutOfData(), -1;
    return at + 2 + (data[at] << 8 | data[at + 1]);
  }
  if (code == 0x1bf) {
    if (!have(2)) return OutOfData(), -1;
    const int64_t len = data[at] << 8 | data[at + 1];
    if (sofdec == 0) {
      if (!have(2 + len)) return OutOfData(), -1;
      const uint8_t* block = data + at + 2;
      const void* s = len >= 6 ? memchr(block, 'S', static_cast<size_t>(len - 5)) : nullptr;
      if (s != nullptr && memcmp(static_cast<const uint8_t*>(s) + 1, "ofdec", 5) == 0) {
        Doubt(PsDoubt::kHeaderTag);  // its audio streams would be ADX
        return -1;
      }
      sofdec = -1;
      dvd = DvdNavigation(block, len);
      // Not a DVD's: the demuxer then skips these packets, but an analysis
      // that met none yet would test the first one the end scan meets.
      if (!dvd) return Doubt(PsDoubt::kStreamKind), -1;
    }
  }
  if (!((code >= 0x1c0 && code <= 0x1df) || (code >= 0x1e0 && code <= 0x1ef) || code == 0x1bd || code == 0x1bf ||
        code == 0x1fd))
    return last_sync;
  if (!have(2)) return OutOfData(), -1;
  int64_t len = data[at] << 8 | data[at + 1];
  at += 2;
  int64_t dts = -1;
  if (code != 0x1bf) {
    int c = 0;
    // Stuffing; bounded by the packet length.
    for (;;) {
      if (len < 1) return last_sync;
      if (!have(1)) return OutOfData(), -1;
      c = data[at++];
      --len;
      if (c != 0xff) break;
    }
    if ((c & 0xc0) == 0x40) {
      if (!have(2)) return OutOfData(), -1;
      c = data[at + 1];
      at += 2;
      len -= 2;
    }
    if ((c & 0xe0) == 0x20) {
      if (!have(4)) return OutOfData(), -1;
      const uint8_t pts[5] = {static_cast<uint8_t>(c), data[at], data[at + 1], data[at + 2], data[at + 3]};
      dts = Timestamp(pts);
      at += 4;
      len -= 4;
      if (c & 0x10) {
        if (!have(5)) return OutOfData(), -1;
        dts = Timestamp(data + at);
        at += 5;
        len -= 5;
      }
    } else if ((c & 0xc0) == 0x80) {
      if (!have(2)) return OutOfData(), -1;
      int flags = data[at];
      int64_t header_len = data[at + 1];
      at += 2;
      len -= 2;
      if (header_len > len) return last_sync;
      len -= header_len;
      if (flags & 0x80) {
        if (!have(5)) return OutOfData(), -1;
        dts = Timestamp(data + at);
        at += 5;
        header_len -= 5;
        if (flags & 0x40) {
          if (!have(5)) return OutOfData(), -1;
          dts = Timestamp(data + at);
          at += 5;
          header_len -= 5;
        }
      }
      if ((flags & 0x3f) && header_len == 0) flags &= 0xc0;
      if (flags & 0x01) {
        if (!have(1)) return OutOfData(), -1;
        int ext = data[at++];
        --header_len;
        int skip = (ext >> 4) & 0xb;
        skip += skip & 0x9;
        if ((ext & 0x40) || skip > header_len) ext = skip = 0;
        at += skip;
        header_len -= skip;
        if (ext & 0x01) {
          if (!have(2)) return OutOfData(), -1;
          int ext2 = data[at++];
          --header_len;
          if ((ext2 & 0x7f) > 0) {
            int id_ext = data[at++];
            if ((id_ext & 0x80) == 0) code = ((code & 0xff) << 8) | id_ext;
            --header_len;
          }
        }
      }
      if (header_len < 0) return last_sync;
      at += header_len;
    } else if (c != 0xf) {
      return at;  // the demuxer searches on from here
    }
  }
  bool raw_ac3 = false;
  if (code == 0x1bd) {
    if (!have(2)) return OutOfData(), -1;
    code = data[at++];
    if (code == 0x0b && data[at] == 0x77) {
      code = 0x80;
      raw_ac3 = true;
      --at;
    } else if (code != 0x0b) {
      --len;
    }
  }
  if (len < 0) return last_sync;
  bool pcm_dvd = false;
  if (code >= 0x80 && code <= 0xcf) {
    if (len < 4) return at + len;
    if (!raw_ac3) {
      at += 3;
      len -= 3;
      if (code >= 0xb0 && code <= 0xbf) ++at, --len;
      if (code >= 0xa0 && code <= 0xaf) {
        if (!have(3)) return OutOfData(), -1;
        pcm_dvd = data[at + 2] == 0x80;  // the LPCM header's third byte, as the demuxer tests it
      }
    }
  }
  // Seen as a time stamp only when the stream's packet carries one.
  const bool is_new = Find(code) == nullptr;
  Track* t = StreamFor(code, pcm_dvd);
  if (ended) return -1;
  if (t == nullptr) return at + len;
  if (is_new && t->out.kind == PsKind::kVideo && !have(8)) return OutOfData(), -1;  // the demuxer peeks at 8 bytes
  if (!have(len)) {
    // The file's last packet, cut short: handed out as far as it goes.
    if (!whole) return Doubt(PsDoubt::kWindowOpen), -1;
    Packet(t, start, at, size - at, dts);
    ended = true;
    return -1;
  }
  Packet(t, start, at, len, dts);
  return at + len;
}

int64_t Scanner::Run(int64_t probesize) {
  sure_payload = probesize / 2;
  if (size >= 4 && memcmp(data, "IMKH", 4) == 0) return Doubt(PsDoubt::kHeaderTag), 0;
  if (size >= 6 && memcmp(data, "Sofdec", 6) == 0) return Doubt(PsDoubt::kHeaderTag), 0;
  int64_t pos = 0;
  int64_t told = -kPsReadAheadStep;
  bool by_size = false;
  // Bounded: every packet moves on by at least one byte.
  while (!ended) {
    if (ahead != nullptr && pos - told >= kPsReadAheadStep) ahead(told = pos, ahead_context);
    if (payload >= probesize + kLagSlack) {
      by_size = true;
      break;
    }
    const int64_t next = OnePacket(pos);
    if (next < 0) break;
    pos = std::max(next, pos + 1);
    if (pos >= size) {
      if (!whole) Doubt(PsDoubt::kWindowOpen);
      break;
    }
  }
  scan.window_end = std::min(pos, size);
  if (scan.doubt == PsDoubt::kNone) Conclude(probesize, by_size);
  return scan.window_end;
}

void Scanner::Conclude(int64_t, bool by_size) {
  if (sure_end < 0) sure_end = scan.window_end;
  for (Track& t : tracks) {
    if (scan.doubt != PsDoubt::kNone) return;
    PsStream& s = t.out;
    if (s.kind == PsKind::kMpegAudio || s.kind == PsKind::kAc3) {
      if (!t.synced) return Doubt(PsDoubt::kAudioFrames);
      s.layer = t.first.layer;
      s.sample_rate = t.first.sample_rate;
      s.channels = t.first.channels;
      s.bit_rate = t.first.bit_rate;
    } else if (s.kind == PsKind::kVideo) {
      if (!SameSequences(data, t.payload, &s)) return Doubt(PsDoubt::kSequenceHeaders);
      s.stamps = static_cast<int32_t>(t.times.size());
      // MPEG-1 video keeps the frame rate of its sequence header. For
      // MPEG-2 the analysis takes it from the steps between the frames'
      // times (their greatest common divisor, over more than 15 steps):
      // each frame lasts one period of the sequence header's rate, so the
      // frames without a time stamp of their own get times on the same grid
      // as the stamped ones; the period must be a whole number of ticks,
      // every step between stamps a multiple of it and one step that period
      // itself, and enough stamps (more than the analysis's 20) must lie where
      // it surely reads, so that it counts them all.
      if (s.mpeg2) {
        const int64_t ticks = int64_t{90000} * s.frame_rate_den;
        const int64_t period = ticks % s.frame_rate_num == 0 ? ticks / s.frame_rate_num : 0;
        if (period < kMinPeriod || period > kMaxPeriod || t.times.size() < 6) return Doubt(PsDoubt::kVideoTimes);
        bool one_period = false;
        for (size_t i = 1; i < t.times.size(); ++i) {
          const int64_t step = t.times[i] - t.times[i - 1];
          if (step <= 0 || step % period != 0) return Doubt(PsDoubt::kVideoTimes);
          one_period |= i >= 5 && step == period;
        }
        int sure = 0;
        for (int64_t at : t.stamp_at) sure += at < sure_end;
        if (!one_period || sure < kMinStamps) return Doubt(PsDoubt::kVideoTimes);
        s.step = period;
      }
      if (by_size) {
        // What a parser holds back is at most one frame: from one time
        // stamp to the next, and from the last to the window's end.
        int64_t from = 0;
        for (int64_t joined : t.stamp_joined) {
          if (joined - from > kLargestFrame) return Doubt(PsDoubt::kLargeFrame);
          from = joined;
        }
        if (t.payload.size - from > kLargestFrame) return Doubt(PsDoubt::kLargeFrame);
      }
    }
  }
  scan.count = static_cast<int32_t>(tracks.size());
  for (size_t i = 0; i < tracks.size(); ++i) scan.streams[i] = tracks[i].out;
  scan.short_analysis = ShortAnalysis();
}

}  // namespace

PsScan ScanProgramStream(const uint8_t* data, size_t size, bool whole, int64_t probesize, PsReadAhead ahead,
                         void* context) {
  Scanner scanner;
  scanner.ahead = ahead;
  scanner.ahead_context = context;
  scanner.data = data;
  scanner.size = static_cast<int64_t>(size);
  scanner.whole = whole;
  scanner.Run(std::max<int64_t>(probesize, 1));
  return scanner.scan;
}
