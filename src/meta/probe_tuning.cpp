#include "meta/probe_tuning.h"

#include <dlfcn.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avio.h>
#include <libavutil/mathematics.h>
#include <libavutil/opt.h>
}

#include "meta/h264_sps.h"
#include "meta/metamedia.h"
#include "meta/program_stream.h"

namespace {

// The entry points used here beyond LoadAv()'s, from the libraries it has
// already loaded.
struct TuningLibrary {
  decltype(&avio_seek) seek;
  decltype(&avio_read) read;
  decltype(&avio_size) size;
  decltype(&av_opt_set) optSet;
  decltype(&av_rescale_q) rescale;
  decltype(&av_rescale_q_rnd) rescaleRnd;
  decltype(&av_codec_iterate) codecIterate;
  decltype(&av_codec_is_decoder) isDecoder;
};

// Null when a symbol is missing: every file then gets the full analysis.
const TuningLibrary* LoadTuning() {
  static const TuningLibrary* loaded = [] {
    static TuningLibrary lib;
    void* format = OpenAvLibrary("libavformat", LIBAVFORMAT_VERSION_MAJOR, RTLD_NOW | RTLD_NOLOAD);
    void* codec = OpenAvLibrary("libavcodec", LIBAVCODEC_VERSION_MAJOR, RTLD_NOW | RTLD_NOLOAD);
    void* util = OpenAvLibrary("libavutil", LIBAVUTIL_VERSION_MAJOR, RTLD_NOW | RTLD_NOLOAD);
    bool ok = ResolveAv(format, "avio_seek", lib.seek) && ResolveAv(format, "avio_read", lib.read) &&
              ResolveAv(format, "avio_size", lib.size) && ResolveAv(util, "av_opt_set", lib.optSet) &&
              ResolveAv(util, "av_rescale_q", lib.rescale) && ResolveAv(util, "av_rescale_q_rnd", lib.rescaleRnd) &&
              ResolveAv(codec, "av_codec_iterate", lib.codecIterate) &&
              ResolveAv(codec, "av_codec_is_decoder", lib.isDecoder);
    return ok ? &lib : nullptr;
  }();
  return loaded;
}

uint32_t Be16(const uint8_t* p) { return uint32_t{p[0]} << 8 | p[1]; }
uint32_t Be32(const uint8_t* p) { return Be16(p) << 16 | Be16(p + 2); }

bool Named(const AVFormatContext* ctx, const char* name) { return strcmp(ctx->iformat->name, name) == 0; }

// The one audio stream of a file whose other streams are all cover pictures,
// or null.
AVStream* OnlyAudioStream(const AVFormatContext* ctx) {
  AVStream* audio = nullptr;
  for (unsigned i = 0; i < ctx->nb_streams; ++i) {
    AVStream* st = ctx->streams[i];
    if (st->disposition & AV_DISPOSITION_ATTACHED_PIC) continue;
    if (audio != nullptr || st->codecpar->codec_type != AVMEDIA_TYPE_AUDIO) return nullptr;
    audio = st;
  }
  return audio;
}

bool HasDuration(const AVFormatContext* ctx) {
  if (ctx->duration != AV_NOPTS_VALUE) return true;
  for (unsigned i = 0; i < ctx->nb_streams; ++i)
    if (ctx->streams[i]->duration != AV_NOPTS_VALUE) return true;
  return false;
}

// Counts the DTS sync words (core, 14-bit and byte-swapped forms, extension
// substream) and the TrueHD one at any offset of `data`. Each holds 0x7F,
// 0x1F, 0x64 or 0xF8 as its first or second byte, so only those bytes are
// looked at: a quarter of the cost of testing every offset.
void CountSyncWords(const uint8_t* data, size_t size, int* dts, int* truehd) {
  auto sync_at = [&](size_t at) {
    if (at + 4 > size) return;
    uint32_t word = Be32(data + at);
    if (word == 0x7FFE8001 || word == 0xFE7F0180 || word == 0x1FFFE800 || word == 0xFF1F00E8 || word == 0x64582025)
      ++*dts;
    if (word == 0xF8726FBA) ++*truehd;
  };
  for (uint8_t byte : {0x7F, 0x1F, 0x64, 0xF8}) {
    const uint8_t* end = data + size;
    // Bounded: every hit moves past the byte found.
    for (const uint8_t* at = data; at < end;) {
      const uint8_t* hit = static_cast<const uint8_t*>(memchr(at, byte, end - at));
      if (hit == nullptr) break;
      size_t offset = hit - data;
      sync_at(offset);                                               // as the first byte
      if ((byte == 0x7F || byte == 0x1F) && offset > 0) sync_at(offset - 1);  // as the second
      at = hit + 1;
    }
  }
}

bool Pcm(AVCodecID id) { return id >= AV_CODEC_ID_FIRST_AUDIO && id < AV_CODEC_ID_ADPCM_IMA_QT; }

// The plain sample formats a WAV (or RIFX) header maps to; the PCM forms
// with a bitstream of their own (DVD, Blu-ray, SMPTE 302M) are not among them.
bool WavSamples(AVCodecID id) {
  switch (id) {
    case AV_CODEC_ID_PCM_U8: case AV_CODEC_ID_PCM_S16LE: case AV_CODEC_ID_PCM_S24LE: case AV_CODEC_ID_PCM_S32LE:
    case AV_CODEC_ID_PCM_S64LE: case AV_CODEC_ID_PCM_F32LE: case AV_CODEC_ID_PCM_F64LE: case AV_CODEC_ID_PCM_ALAW:
    case AV_CODEC_ID_PCM_MULAW: case AV_CODEC_ID_PCM_S16BE: case AV_CODEC_ID_PCM_S24BE: case AV_CODEC_ID_PCM_S32BE:
    case AV_CODEC_ID_PCM_F32BE: case AV_CODEC_ID_PCM_F64BE:
      return true;
    default:
      return false;
  }
}

// The analysis reads a 16-bit PCM stream of a WAV file as possible
// compressed audio first: up to 32 packets of 4096 bytes (or one block) are
// run through the probes of the raw audio formats, and a match scoring above
// the WAV demuxer's request takes the stream over (AC-3, DTS, MPEG audio and
// the like stored as PCM). Those probes can score that high only on data
// that starts with their frame sync, or that holds at least 4 DTS sync words
// or any TrueHD one. True when the bytes the analysis would probe
// show none of that, so the stream stays PCM; false when they might, or
// cannot be read and put back.
bool PcmStaysPcm(const TuningLibrary& lib, AVFormatContext* ctx, const AVStream* st) {
  AVIOContext* pb = ctx->pb;
  if (pb == nullptr || !(pb->seekable & AVIO_SEEKABLE_NORMAL)) return false;
  int64_t at = lib.seek(pb, 0, SEEK_CUR);
  if (at < 0) return false;
  int64_t packet = std::max(4096, st->codecpar->block_align);
  std::vector<uint8_t> data(static_cast<size_t>(std::min<int64_t>(32 * packet, ctx->probesize + packet)) + 4, 0);
  int got = lib.read(pb, data.data(), static_cast<int>(data.size() - 4));
  if (lib.seek(pb, at, SEEK_SET) != at) return false;
  size_t n = got > 0 ? static_cast<size_t>(got) : 0;
  const uint8_t* p = data.data();
  if (n >= 3 && memcmp(p, "ID3", 3) == 0) return false;            // probes look past a tag
  // AC-3 and E-AC-3, also byte-swapped or behind the 16-byte block some files start with.
  if ((p[0] == 0x0B && p[1] == 0x77) || (p[0] == 0x77 && p[1] == 0x0B) || (p[0] == 0x01 && p[1] == 0x10)) return false;
  if (n >= 2 && (Be16(p) & 0xFFF6) == 0xFFF0) return false;         // ADTS AAC
  if (n >= 3 && (Be32(p) >> 21) == 0x2B7) return false;             // LATM in LOAS
  size_t first = 0;
  while (first < n && p[first] == 0) ++first;  // MPEG audio: from the first byte that is not 0
  if (first + 4 <= n && (Be32(p + first) & 0xFFE00000) == 0xFFE00000) return false;
  int dts = 0, truehd = 0;
  CountSyncWords(p, n, &dts, &truehd);
  return dts < 4 && truehd == 0;
}

// A decoder the analysis opens sets the stream's rate, channels and bit rate
// from the same header fields the demuxer read: Vorbis and Opus from their
// identification header, WMA v1/v2 not at all. PCM has no decoder state.
bool HeaderSettlesEverything(const TuningLibrary& lib, AVFormatContext* ctx) {
  if ((ctx->ctx_flags & AVFMTCTX_NOHEADER) || ctx->nb_programs > 1 || !HasDuration(ctx)) return false;
  AVStream* st = OnlyAudioStream(ctx);
  if (st == nullptr || st->codecpar->sample_rate <= 0 || st->codecpar->ch_layout.nb_channels <= 0) return false;
  AVCodecID id = st->codecpar->codec_id;
  if (Named(ctx, "wav")) {
    // 16-bit, 8-bit and G.711 rates are worked out from the format; for the
    // rest a missing header rate would be filled in when the decoder opens.
    bool computed = id >= AV_CODEC_ID_PCM_S16LE && id <= AV_CODEC_ID_PCM_ALAW;
    if (!WavSamples(id) || (!computed && st->codecpar->bit_rate <= 0)) return false;
    return id != AV_CODEC_ID_PCM_S16LE || PcmStaysPcm(lib, ctx, st);
  }
  if (Named(ctx, "ogg")) return id == AV_CODEC_ID_VORBIS || id == AV_CODEC_ID_OPUS;
  if (Named(ctx, "asf")) return id == AV_CODEC_ID_WMAV1 || id == AV_CODEC_ID_WMAV2;
  return false;
}

// What the analysis does to the container's start, duration and bit rate
// when a stream has a duration of its own (libavformat's
// update_stream_timings, which it runs twice around filling in the streams
// that have none).
void UpdateTimings(const TuningLibrary& lib, AVFormatContext* ctx) {
  const AVRational us = AV_TIME_BASE_Q;
  int64_t start = INT64_MAX, start_text = INT64_MAX, end = INT64_MIN, end_text = INT64_MIN;
  int64_t duration = INT64_MIN, duration_text = INT64_MIN;
  for (unsigned i = 0; i < ctx->nb_streams; ++i) {
    const AVStream* st = ctx->streams[i];
    bool text = st->codecpar->codec_type == AVMEDIA_TYPE_SUBTITLE || st->codecpar->codec_type == AVMEDIA_TYPE_DATA;
    if (st->start_time != AV_NOPTS_VALUE && st->time_base.den) {
      int64_t start1 = lib.rescale(st->start_time, st->time_base, us);
      (text ? start_text : start) = std::min(text ? start_text : start, start1);
      int64_t end1 = lib.rescaleRnd(st->duration, st->time_base, us,
                                    static_cast<AVRounding>(AV_ROUND_NEAR_INF | AV_ROUND_PASS_MINMAX));
      if (end1 != AV_NOPTS_VALUE && (end1 > 0 ? start1 <= INT64_MAX - end1 : start1 >= INT64_MIN - end1)) {
        end1 += start1;
        (text ? end_text : end) = std::max(text ? end_text : end, end1);
      }
    }
    if (st->duration != AV_NOPTS_VALUE) {
      int64_t duration1 = lib.rescale(st->duration, st->time_base, us);
      (text ? duration_text : duration) = std::max(text ? duration_text : duration, duration1);
    }
  }
  if (start == INT64_MAX || (start > start_text && start - static_cast<uint64_t>(start_text) < AV_TIME_BASE))
    start = start_text;
  if (end == INT64_MIN || (end < end_text && end_text - static_cast<uint64_t>(end) < AV_TIME_BASE)) end = end_text;
  if (duration == INT64_MIN ||
      (duration < duration_text && static_cast<uint64_t>(duration_text) - duration < AV_TIME_BASE))
    duration = duration_text;
  if (start != INT64_MAX) {
    ctx->start_time = start;
    if (end != INT64_MIN && end >= start && end - static_cast<uint64_t>(start) <= INT64_MAX)
      duration = std::max(duration, end - start);
  }
  if (duration != INT64_MIN && duration > 0 && ctx->duration == AV_NOPTS_VALUE) ctx->duration = duration;
  int64_t filesize = ctx->pb != nullptr ? lib.size(ctx->pb) : 0;
  if (filesize > 0 && ctx->duration > 0) {
    double bitrate = static_cast<double>(filesize) * 8.0 * AV_TIME_BASE / static_cast<double>(ctx->duration);
    if (bitrate >= 0 && bitrate <= static_cast<double>(INT64_MAX)) ctx->bit_rate = static_cast<int64_t>(bitrate);
  }
}

// The analysis's timing step for a file whose streams carry durations.
void CompleteTimings(const TuningLibrary& lib, AVFormatContext* ctx) {
  UpdateTimings(lib, ctx);
  for (unsigned i = 0; i < ctx->nb_streams; ++i) {
    AVStream* st = ctx->streams[i];
    if (st->start_time != AV_NOPTS_VALUE) continue;
    if (ctx->start_time != AV_NOPTS_VALUE) st->start_time = lib.rescale(ctx->start_time, AV_TIME_BASE_Q, st->time_base);
    if (ctx->duration != AV_NOPTS_VALUE) st->duration = lib.rescale(ctx->duration, AV_TIME_BASE_Q, st->time_base);
  }
  UpdateTimings(lib, ctx);
}

// Audio whose stored values are settled by its first packet, however many
// more the analysis reads: AAC, ALAC and PCM have no parser in MP4; the
// E-AC-3 parser leaves the bit rate alone; the AC-3 parser averages the
// frames' bit rates, and AC-3 keeps one bit rate code through a stream (at
// 44.1 kHz only the padding bit beside it alternates). The MPEG audio parser
// averages frames that may differ.
bool AmountReadIrrelevant(AVCodecID id) {
  return id == AV_CODEC_ID_AAC || id == AV_CODEC_ID_ALAC || id == AV_CODEC_ID_AC3 || id == AV_CODEC_ID_EAC3 || Pcm(id);
}

// MPEG audio whose bit rate the container gave (an AVI stream header, an MP4
// track's sizes over its duration): the parser then leaves that figure alone
// instead of averaging the frames it sees. Rate and channel count are those
// of every frame of a stream.
bool HeaderBitRateKept(const AVCodecParameters* par) {
  AVCodecID id = par->codec_id;
  return (id == AV_CODEC_ID_MP1 || id == AV_CODEC_ID_MP2 || id == AV_CODEC_ID_MP3) && par->bit_rate > 0;
}

// Every decoder but the H.264 one, for the format context's codec_whitelist,
// which the analysis hands to each decoder it opens.
const std::string& DecodersButH264(const TuningLibrary& lib) {
  static const std::string list = [&lib] {
    std::string names;
    void* at = nullptr;
    // Bounded by the library's own table of codecs.
    while (const AVCodec* codec = lib.codecIterate(&at)) {
      if (!lib.isDecoder(codec) || strcmp(codec->name, "h264") == 0) continue;
      if (!names.empty()) names += ',';
      names += codec->name;
    }
    return names;
  }();
  return list;
}

// The analysis of an MPEG program stream reads until its packets reach the
// size limit or a stream has 5 s analysed (about 3 MB of a DVD); given the
// short limit the scan foresees (or 0.8 s) it reads what gives every
// stream's parameters. The part between is scanned (meta/program_stream)
// for anything that could change a stored value there, and the short
// analysis's values are checked against what the scan found.
constexpr int64_t kHeadAnalysis = 800000;  // µs
constexpr int64_t kMappedBeyondLimit = 8 << 20;  // bytes of headers, padding and what parsers hold

// Owner of a read-only mapping of a file's head.
struct Mapping {
  void* at = MAP_FAILED;
  size_t size = 0;
  Mapping() = default;
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;
  ~Mapping() {
    if (at != MAP_FAILED) munmap(at, size);
  }
};

// Set when a page of the mapped head was beyond the file's end: the file
// shrank while it was scanned.
volatile sig_atomic_t gHeadShrank = 0;
uintptr_t gPageSize = 4096;

// A read of the mapping past the end of a file cut short under it raises
// SIGBUS: the page is replaced by zeros (mmap is async-signal-safe) and the
// scan goes on to its end, to be thrown away; the analysis then reads the
// file as it now is.
void OnHeadShrank(int, siginfo_t* info, void*) {
  const uintptr_t page = reinterpret_cast<uintptr_t>(info->si_addr) & ~(gPageSize - 1);
  void* zeros =
      mmap(reinterpret_cast<void*>(page), gPageSize, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
  if (zeros == MAP_FAILED) _exit(1);
  gHeadShrank = 1;
}

// The mapped head ahead of the scan. The mapping has the kernel's read-around
// turned off (on a miss it reads a whole read-ahead window, 8 MiB on some
// disks, around the page), so these requests are what the disk reads: the
// next MiB, asked for before the scan gets there.
struct HeadAhead {
  const uint8_t* data;
  size_t size;
};
constexpr int64_t kHeadAheadSpan = 1 << 20;

void AskForHeadAhead(int64_t reached, void* context) {
  const auto* head = static_cast<const HeadAhead*>(context);
  if (reached < 0 || static_cast<size_t>(reached) >= head->size) return;
  const uintptr_t from = reinterpret_cast<uintptr_t>(head->data + reached) & ~(gPageSize - 1);
  const uintptr_t to = reinterpret_cast<uintptr_t>(head->data) +
                       std::min<size_t>(head->size, static_cast<size_t>(reached + kHeadAheadSpan));
  (void)madvise(reinterpret_cast<void*>(from), to - from, MADV_WILLNEED);
}

// The scan of a mapped head, guarded against the file shrinking meanwhile;
// a doubt when it did.
PsScan GuardedScan(const uint8_t* data, size_t size, bool whole, int64_t probesize) {
  struct sigaction act = {}, before = {};
  act.sa_sigaction = OnHeadShrank;
  act.sa_flags = SA_SIGINFO;
  sigemptyset(&act.sa_mask);
  gHeadShrank = 0;
  gPageSize = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  bool guarded = sigaction(SIGBUS, &act, &before) == 0;
  HeadAhead head{data, size};
  PsScan scan = ScanProgramStream(data, size, whole, probesize, AskForHeadAhead, &head);
  if (guarded) sigaction(SIGBUS, &before, nullptr);
  if (gHeadShrank) scan.doubt = PsDoubt::kWindowOpen;
  return scan;
}

// The head of the input the analysis would read: mapped from `fd` (the
// probe helper may map files: its filter refuses only executable mappings),
// or, for an input without one, read through it and put back.
bool ReadHead(const TuningLibrary& lib, AVFormatContext* ctx, int fd, Mapping* map, std::vector<uint8_t>* copy,
              const uint8_t** data, size_t* size, bool* whole) {
  const int64_t want = ctx->probesize + kMappedBeyondLimit;
  if (fd >= 0) {
    // The helper's filter allows lseek, not fstat; libavformat reads with pread.
    const off_t file = lseek(fd, 0, SEEK_END);
    if (file <= 0) return false;
    map->size = static_cast<size_t>(std::min<int64_t>(file, want));
    map->at = mmap(nullptr, map->size, PROT_READ, MAP_PRIVATE, fd, 0);
    if (map->at == MAP_FAILED) return false;
    (void)madvise(map->at, map->size, MADV_RANDOM);  // the scan asks for what it reads (AskForHeadAhead)
    *data = static_cast<const uint8_t*>(map->at);
    *size = map->size;
    *whole = static_cast<int64_t>(map->size) == file;
    return true;
  }
  AVIOContext* pb = ctx->pb;
  int64_t at = pb != nullptr ? lib.seek(pb, 0, SEEK_CUR) : -1;
  int64_t file = pb != nullptr ? lib.size(pb) : -1;
  if (at < 0 || file <= 0 || lib.seek(pb, 0, SEEK_SET) != 0) return false;
  copy->resize(static_cast<size_t>(std::min(file, want)));
  int got = lib.read(pb, copy->data(), static_cast<int>(copy->size()));
  if (lib.seek(pb, at, SEEK_SET) != at || got != static_cast<int>(copy->size())) return false;
  *data = copy->data();
  *size = copy->size();
  *whole = static_cast<int64_t>(copy->size()) == file;
  return true;
}

// True when the short analysis found each stream the scan found, in its
// order, with the values the scan says the whole window gives.
bool HeadAgrees(const AVFormatContext* ctx, const PsScan& scan) {
  if (static_cast<int>(ctx->nb_streams) != scan.count) return false;
  for (int i = 0; i < scan.count; ++i) {
    const AVStream* st = ctx->streams[i];
    const AVCodecParameters* par = st->codecpar;
    const PsStream& want = scan.streams[i];
    if (st->id != want.id) return false;
    switch (want.kind) {
      case PsKind::kNavigation:
        if (par->codec_id != AV_CODEC_ID_DVD_NAV) return false;
        continue;
      case PsKind::kSubtitle:
        if (par->codec_id != AV_CODEC_ID_DVD_SUBTITLE) return false;
        break;
      case PsKind::kLpcm:
        // Its decoder reads the first packet's header and no parser follows.
        if (par->codec_id != AV_CODEC_ID_PCM_DVD || par->sample_rate <= 0 || par->ch_layout.nb_channels <= 0)
          return false;
        break;
      case PsKind::kVideo: {
        // With the sequence header taken as extradata every stream counts
        // as known to the analysis, whose limit is then 5 s, not 7.
        if (par->codec_id != (want.mpeg2 ? AV_CODEC_ID_MPEG2VIDEO : AV_CODEC_ID_MPEG1VIDEO) || par->width <= 0 ||
            par->height <= 0 || par->extradata_size <= 0)
          return false;
        int num = 0, den = 0;
        if (want.step > 0) PsStepRate(want.step, &num, &den);
        if (want.step > 0 && (st->r_frame_rate.num != num || st->r_frame_rate.den != den)) return false;
        break;
      }
      case PsKind::kMpegAudio:
      case PsKind::kAc3: {
        static const AVCodecID kLayers[4] = {AV_CODEC_ID_AC3, AV_CODEC_ID_MP1, AV_CODEC_ID_MP2, AV_CODEC_ID_MP3};
        if (par->codec_id != kLayers[want.layer] || par->sample_rate != want.sample_rate ||
            par->ch_layout.nb_channels != want.channels || par->bit_rate != want.bit_rate)
          return false;
        break;
      }
    }
    // Each stream's start is its first time stamp, which the head holds.
    if (st->start_time == AV_NOPTS_VALUE) return false;
  }
  return true;
}

// The scan of what the full analysis of `ctx` would read (ScanAnalysedPart).
PsScan ScanPart(const TuningLibrary& lib, AVFormatContext* ctx, int fd) {
  Mapping map;
  std::vector<uint8_t> copy;
  const uint8_t* data = nullptr;
  size_t size = 0;
  bool whole = false;
  bool bounded = ReadHead(lib, ctx, fd, &map, &copy, &data, &size, &whole);
  // The demuxer starts where opening left the input: after a leading ID3v2 tag.
  const int64_t start = ctx->pb != nullptr ? lib.seek(ctx->pb, 0, SEEK_CUR) : -1;
  PsScan scan{};
  scan.doubt = PsDoubt::kWindowOpen;
  if (!bounded || start < 0 || start >= static_cast<int64_t>(size)) return scan;
  data += start;
  size -= static_cast<size_t>(start);
  if (fd >= 0) return GuardedScan(data, size, whole, ctx->probesize);
  return ScanProgramStream(data, size, whole, ctx->probesize);
}

// The tuned analysis of an input the "mpeg" demuxer opened.
Analysis AnalyseProgramStream(const TuningLibrary& lib, AVFormatContext* ctx, int fd) {
  const AvLibrary* av = LoadAv();
  const PsScan scan = ScanPart(lib, ctx, fd);
  if (scan.doubt != PsDoubt::kNone)
    return av->findStreamInfo(ctx, nullptr) >= 0 ? Analysis::kKnown : Analysis::kUnknown;
  const int64_t limit = ctx->max_analyze_duration;
  ctx->max_analyze_duration = scan.short_analysis > 0 ? scan.short_analysis : kHeadAnalysis;
  bool known = av->findStreamInfo(ctx, nullptr) >= 0;
  ctx->max_analyze_duration = limit;
  return known && HeadAgrees(ctx, scan) ? Analysis::kKnown : Analysis::kOpenAgainUntuned;
}

}  // namespace

// True when the sequence parameter set in the stream's codec configuration
// gives the picture size the stream has now, the one the H.264 decoder
// would report on the first frame.
bool H264SizeConfirmed(const AVCodecParameters* par) {
  H264PictureSize sps;
  int width, height;
  if (par->width <= 0 || par->height <= 0 || !ReadH264PictureSize(par->extradata, par->extradata_size, &sps))
    return false;
  H264DecodedSize(sps, par->width, par->height, &width, &height);
  return width == par->width && height == par->height;
}

bool H264SizesConfirmed(const AVFormatContext* ctx) {
  for (unsigned i = 0; i < ctx->nb_streams; ++i) {
    const AVCodecParameters* par = ctx->streams[i]->codecpar;
    if (par->codec_type == AVMEDIA_TYPE_VIDEO && par->codec_id == AV_CODEC_ID_H264 && !H264SizeConfirmed(par))
      return false;
  }
  return true;
}

// An MP4/QuickTime file's duration comes from its movie header and its bit
// rate from that and the file size; an AVI file's from its stream headers
// and index. The H.264 decoder only confirms the picture size the track or
// the stream format gives, which the sequence parameter set tells as well.
// Without it the analysis still reads the first packets of every track and
// decodes the first audio frame, as before. Every other track must be one
// whose values do not depend on how many packets are read: the analysis may
// stop at another packet once the video decoder is not there.
H264Decoder H264DecoderNeed(const AVFormatContext* ctx) {
  bool avi = Named(ctx, "avi");
  if (!avi && (!Named(ctx, "mov,mp4,m4a,3gp,3g2,mj2") || ctx->duration == AV_NOPTS_VALUE))
    return H264Decoder::kNeeded;
  bool any = false;
  for (unsigned i = 0; i < ctx->nb_streams; ++i) {
    const AVCodecParameters* par = ctx->streams[i]->codecpar;
    if (par->codec_type == AVMEDIA_TYPE_VIDEO && par->codec_id == AV_CODEC_ID_H264) {
      // An AVI stream format seldom carries the parameter sets: the analysis
      // takes them from the first packets, so they are checked after it.
      if (par->width <= 0 || par->height <= 0 || (!avi && !H264SizeConfirmed(par))) return H264Decoder::kNeeded;
      any = true;
    } else if (par->codec_type == AVMEDIA_TYPE_AUDIO && !AmountReadIrrelevant(par->codec_id) &&
               !HeaderBitRateKept(par)) {
      return H264Decoder::kNeeded;
    }
  }
  if (!any) return H264Decoder::kNeeded;
  return avi ? H264Decoder::kCheckedAfter : H264Decoder::kRedundant;
}

PsScan ScanAnalysedPart(AVFormatContext* ctx, int fd) {
  const TuningLibrary* lib = LoadTuning();
  if (lib != nullptr) return ScanPart(*lib, ctx, fd);
  PsScan scan{};
  scan.doubt = PsDoubt::kWindowOpen;
  return scan;
}

Analysis AnalyseStreams(AVFormatContext* ctx, ProbeMode mode, int fd) {
  const AvLibrary* av = LoadAv();
  const TuningLibrary* lib = mode == ProbeMode::kTuned ? LoadTuning() : nullptr;
  H264Decoder decoder = H264Decoder::kNeeded;
  if (lib != nullptr && Named(ctx, "mpeg")) return AnalyseProgramStream(*lib, ctx, fd);
  if (lib != nullptr) {
    if (HeaderSettlesEverything(*lib, ctx)) {
      CompleteTimings(*lib, ctx);
      return Analysis::kKnown;
    }
    decoder = H264DecoderNeed(ctx);
    if (decoder != H264Decoder::kNeeded) lib->optSet(ctx, "codec_whitelist", DecodersButH264(*lib).c_str(), 0);
  }
  bool known = av->findStreamInfo(ctx, nullptr) >= 0;
  // Whatever the sequence does not confirm, or a failure the decoder might
  // have prevented, is left to the full analysis on a fresh open.
  if (decoder == H264Decoder::kCheckedAfter && (!known || !H264SizesConfirmed(ctx))) return Analysis::kOpenAgainUntuned;
  return known ? Analysis::kKnown : Analysis::kUnknown;
}

// Nothing has to be decided before the header is read: every limit above is
// set on the opened context. The options that would make opening itself
// cheaper all change a stored value on some file: a forced input format
// or a smaller format probe picks another demuxer for files whose name
// does not match their content, "ignore_length" changes WAV durations, and
// skipping the AVI index, the Ogg end page or the MPEG end scan loses the
// bit rates and durations read from them.
std::vector<std::pair<std::string, std::string>> ProbeOpenOptions(ProbeMode) { return {}; }
