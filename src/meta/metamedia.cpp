#include "meta/metamedia.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

extern "C" {
#include <libavutil/log.h>
}

#include "meta/asf_reader.h"
#include "meta/byte_reader.h"
#include "meta/descriptor_input.h"
#include "meta/mp4_video.h"
#include "meta/ogg_reader.h"
#include "meta/probe_helper.h"
#include "meta/probe_tuning.h"
#include "platform/fd_owner.h"
#include "platform/log.h"
#include "platform/read_advice.h"
#include "platform/text_encoding.h"

// The 16-bit and 8-bit PCM codec ids are the same numbers in libavcodec 59
// as they always were: the bit-rate rule below depends on these ranges.
static_assert(AV_CODEC_ID_PCM_S16LE == 0x10000);
static_assert(AV_CODEC_ID_PCM_S16BE == 0x10001);
static_assert(AV_CODEC_ID_PCM_U16LE == 0x10002);
static_assert(AV_CODEC_ID_PCM_U16BE == 0x10003);
static_assert(AV_CODEC_ID_PCM_S8 == 0x10004);
static_assert(AV_CODEC_ID_PCM_U8 == 0x10005);
static_assert(AV_CODEC_ID_PCM_MULAW == 0x10006);
static_assert(AV_CODEC_ID_PCM_ALAW == 0x10007);
static_assert(AVMEDIA_TYPE_VIDEO == 0 && AVMEDIA_TYPE_AUDIO == 1);

namespace {

const AvLibrary* Load() {
  static AvLibrary av;
  // Never closed: the library stays for the life of the process.
  void* util = OpenAvLibrary("libavutil", LIBAVUTIL_VERSION_MAJOR, RTLD_NOW | RTLD_LOCAL);
  void* format = util ? OpenAvLibrary("libavformat", LIBAVFORMAT_VERSION_MAJOR, RTLD_NOW | RTLD_LOCAL) : nullptr;
  decltype(&av_log_set_level) setLogLevel = nullptr;
  if (format == nullptr || !ResolveAv(util, "av_log_set_level", setLogLevel) ||
      !ResolveAv(util, "av_dict_get", av.dictGet) || !ResolveAv(util, "av_dict_set", av.dictSet) ||
      !ResolveAv(util, "av_dict_free", av.dictFree) || !ResolveAv(format, "avformat_open_input", av.openInput) ||
      !ResolveAv(format, "avformat_find_stream_info", av.findStreamInfo) ||
      !ResolveAv(format, "avformat_close_input", av.closeInput) ||
      !ResolveAv(format, "av_find_input_format", av.findInputFormat) ||
      !ResolveAv(format, "avformat_alloc_context", av.allocContext) ||
      !ResolveAv(format, "avio_alloc_context", av.allocIo) || !ResolveAv(format, "avio_context_free", av.freeIo) ||
      !ResolveAv(util, "av_malloc", av.allocBuffer) || !ResolveAv(util, "av_freep", av.freep) ||
      !ResolveAv(format, "av_demuxer_iterate", av.demuxerIterate)) {
    const char* why = dlerror();
    ORVO_LOG("%s (%d) Failed to load libavformat (%s)", why ? why : "unknown error");
    return nullptr;
  }
  // Demuxers and decoders complain loudly about damaged files; one line per
  // packet would flood syslog. Our own messages say what failed.
  setLogLevel(AV_LOG_QUIET);
  return &av;
}

}  // namespace

void* OpenAvLibrary(const char* base, int major, int flags) {
  return dlopen((std::string(base) + ".so." + std::to_string(major)).c_str(), flags);
}

const AvLibrary* LoadAv() {
  static const AvLibrary* av = Load();
  return av;
}

namespace {

const char* Tag(const AVDictionary* dict, const char* key) {
  const AVDictionaryEntry* e = LoadAv()->dictGet(dict, key, nullptr, 0);
  return e != nullptr ? e->value : nullptr;
}

// The names FFmpeg 5.1's demuxers give the tags of the generic extensions'
// containers (matched without case), first name found wins:
//
//   field   names            given by
//   title   title            ASF and RealMedia content description, RIFF INAM (WAV, AVI),
//                            ID3 TIT2, MOV (c)nam, Vorbis TITLE (Ogg), FLV onMetaData
//   artist  artist           ASF Author, RIFF IART, ID3 TPE1, MOV (c)ART, Vorbis ARTIST
//           author           RealMedia
//   album   album            ASF WM/AlbumTitle, WAV IPRD, ID3 TALB, MOV (c)alb, Vorbis ALBUM
//           product          AVI IPRD
//   year    date             RIFF ICRD, ID3 TYER/TDRC, MOV (c)day, Vorbis DATE
//           year             files whose writer used that name (FLV, Ogg)
//           WM/Year          ASF, left under its own name by the demuxer
//   track   track            ASF WM/TrackNumber, RIFF IPRT/ITRK, ID3 TRCK, MOV trkn,
//                            Vorbis TRACKNUMBER
//           WM/Track         ASF's older track number, counted from 0
//   genre   genre            ASF WM/Genre, RIFF IGNR, ID3 TCON, MOV (c)gen/gnre, Vorbis GENRE
//
// MPEG program and transport streams, AC-3 and raw audio have none of their
// own; a leading ID3v2 tag on any of them is read as ID3 above.
ContainerTags TagsOf(const AVDictionary* dict) {
  return ContainerTagsFrom([dict](const char* key) { return Tag(dict, key); });
}

bool HasAny(const ContainerTags& t) {
  return t.title || t.artist || t.album || t.date || t.track || t.genre;
}

bool NotEmpty(const char* s) { return s != nullptr && s[0] != '\0'; }

// Tag text into a record field, cut between whole characters when it is UTF-8.
void Copy(char* field, size_t bound, const char* text) { orvo::CopyTextField(field, bound, text); }

// PCM bit rates are worked out from the format; everything else trusts the
// codec's own figure.
int64_t AudioBitRate(const AVCodecParameters* par) {
  int64_t rate = par->sample_rate;
  int64_t channels = par->ch_layout.nb_channels;
  if (par->codec_id >= 0x10000 && par->codec_id <= 0x10003) return rate * channels * 16;
  if (par->codec_id >= 0x10004 && par->codec_id <= 0x10007) return rate * channels * 8;
  return par->bit_rate;
}

struct AvIoFreer {
  void operator()(AVIOContext* pb) const {
    LoadAv()->freep(&pb->buffer);
    LoadAv()->freeIo(&pb);
  }
};
using AvIo = std::unique_ptr<AVIOContext, AvIoFreer>;

// Demuxers that open other resources than the file they read: playlists and
// manifests (concat scripts, HLS, DASH, IMF), image sequences, session
// descriptions and streams (SDP, RTP, RTSP, SAP), VobSub's companion file,
// and every demuxer that opens its input itself.
bool OpensOtherResources(const AVInputFormat* format) {
  static const char* const kRefused[] = {"concat", "dash", "hls", "image2", "imf", "rtp", "rtsp", "sap", "sdp",
                                         "vobsub"};
  if ((format->flags & AVFMT_NOFILE) != 0) return true;
  for (const char* name : kRefused) {
    if (strcmp(format->name, name) == 0) return true;
  }
  return false;
}

// Every other demuxer, as a format whitelist.
const std::string& AllowedFormats() {
  static const std::string allowed = [] {
    std::string list;
    void* opaque = nullptr;
    // Bounded by the library's own static table.
    while (const AVInputFormat* format = LoadAv()->demuxerIterate(&opaque)) {
      if (OpensOtherResources(format)) continue;
      if (!list.empty()) list += ',';
      list += format->name;
    }
    return list;
  }();
  return allowed;
}

// Nested opens (a MOV file's external references, anything a demuxer would
// fetch beside its input) are refused outright.
int RefuseNestedOpen(AVFormatContext*, AVIOContext**, const char*, int, AVDictionary**) { return AVERROR(EPERM); }

constexpr int kIoBufferSize = 32768;  // what libavformat's file protocol reads at a time

// The file `input` reads, opened through `io` (made here),
// or null with a log line.
AvInput OpenInput(const char* path, DescriptorInput* input, AvIo* io) {
  // Registration happens inside libavformat since its demuxers became a
  // static table; there is nothing left to call before opening a file.
  const AvLibrary* av = LoadAv();
  AVFormatContext* raw = nullptr;
  if (av != nullptr) {
    auto* buffer = static_cast<unsigned char*>(av->allocBuffer(kIoBufferSize));
    AVIOContext* pb = buffer ? av->allocIo(buffer, kIoBufferSize, 0, input, DescriptorInputRead, nullptr, DescriptorInputSeek)
                             : nullptr;
    if (pb == nullptr) av->freep(&buffer);
    io->reset(pb);
    raw = *io ? av->allocContext() : nullptr;
  }
  int opened = -1;
  if (raw != nullptr) {
    raw->pb = io->get();
    raw->io_open = RefuseNestedOpen;
    AVDictionary* options = nullptr;
    av->dictSet(&options, "format_whitelist", AllowedFormats().c_str(), 0);
    av->dictSet(&options, "protocol_whitelist", "file", 0);
    // On failure the context is freed and raw cleared.
    opened = av->openInput(&raw, path, nullptr, &options);
    av->dictFree(&options);
  }
  if (opened < 0) {
    ORVO_LOG("%s (%d) Failed to av_open_input_file() file [%s].", path);
    return nullptr;
  }
  return AvInput(raw);
}

int ProbeStreams(int fd, const char* path, MediaInfo* info, ProbeMode mode) {
  int result = -1;
  DescriptorInput input;
  input.fd = fd;
  AvIo io;
  AvInput ctx = OpenInput(path, &input, &io);
  if (!ctx) return -1;
  Analysis analysis = AnalyseStreams(ctx.get(), mode, fd);
  if (analysis == Analysis::kOpenAgainUntuned) {
    ctx.reset();
    io.reset();
    input = DescriptorInput{};
    input.fd = fd;
    ctx = OpenInput(path, &input, &io);
    if (!ctx) return -1;
    analysis = AnalyseStreams(ctx.get(), ProbeMode::kLibraryDefaults);
  }
  if (analysis != Analysis::kKnown) {
    ORVO_LOG("%s (%d) Could not find codec parameters.  %s", path);
    return -1;
  }

  ContainerTags tags = GetContainerTags(ctx.get());
  // An unknown duration (AV_NOPTS_VALUE) would come out hugely negative and be
  // cleared by MediaInfoValid; store the 0 it ends as straight away.
  StoreContainerValues(tags, ctx->bit_rate, ctx->duration == AV_NOPTS_VALUE ? 0 : ctx->duration, info);

  bool audio_seen = false;
  bool video_seen = false;
  int64_t bitrate = 0;
  bool all_streams = true;
  for (unsigned i = 0; i < ctx->nb_streams; ++i) {
    const AVStream* st = ctx->streams[i];
    if (IsSideStream(ctx.get(), st)) continue;
    const AVCodecParameters* par = st->codecpar;
    if (par->codec_type == AVMEDIA_TYPE_VIDEO) {
      if (par->width != 0) {
        info->width = par->width;
        info->height = par->height;
      }
      video_seen = true;
    } else if (par->codec_type == AVMEDIA_TYPE_AUDIO) {
      info->channels = par->ch_layout.nb_channels;
      if (par->sample_rate != 0) info->frequency = par->sample_rate;
      bitrate = AudioBitRate(par);
      audio_seen = true;
    } else {
      ORVO_LOG("%s (%d) Invalid stream type.");
      all_streams = false;
      break;
    }
    // Not reset between streams: a video stream after an audio stream stores
    // the audio figure again. Deliberate.
    if (bitrate != 0) info->bitrate = static_cast<int32_t>(bitrate);
  }
  if (all_streams && (audio_seen || video_seen)) {
    // A video's container album is a collection name, not the folder the user
    // filed it in; only audio-only files take it.
    if (!video_seen && NotEmpty(tags.album)) Copy(info->album, sizeof info->album, tags.album);
    result = 0;
  }
  return result;
}

}  // namespace

bool ReadOpenedAsProbe(const char* path, bool (*read)(int fd, int64_t length, MediaInfo* info), MediaInfo* info) {
  FdOwner fd(open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat st;
  if (fd.get() < 0 || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
  AdviseFewReads(fd.get());
  return read(fd.get(), st.st_size, info);
}

void StoreContainerValues(const ContainerTags& tags, int64_t bit_rate, int64_t duration_us, MediaInfo* info) {
  info->video_bitrate = static_cast<int32_t>(bit_rate);
  info->duration = static_cast<float>(duration_us / 1000000);
  if (NotEmpty(tags.genre)) Copy(info->genre, sizeof info->genre, tags.genre);
  if (NotEmpty(tags.artist)) Copy(info->artist, sizeof info->artist, tags.artist);
  if (NotEmpty(tags.title)) Copy(info->title, sizeof info->title, tags.title);
  int year = tags.date != nullptr ? atoi(tags.date) : 0;
  if (year != 0) snprintf(info->year, sizeof info->year, "%d", year);
  info->track = ContainerTrack(tags);
}

void StoreOneAudioStream(const ContainerTags& tags, int64_t bit_rate, int64_t duration_us, int32_t sample_rate,
                         int32_t channels, int64_t audio_bit_rate, MediaInfo* info) {
  StoreContainerValues(tags, bit_rate, duration_us, info);
  info->channels = channels;
  if (sample_rate != 0) info->frequency = sample_rate;
  if (audio_bit_rate != 0) info->bitrate = static_cast<int32_t>(audio_bit_rate);
  if (NotEmpty(tags.album)) Copy(info->album, sizeof info->album, tags.album);
}

int ContainerTrack(const ContainerTags& tags) {
  if (tags.track == nullptr) return 0;
  return atoi(tags.track) + (tags.track_from_zero ? 1 : 0);
}

bool IsSideStream(const AVFormatContext* ctx, const AVStream* st) {
  if (IsSideStream(st)) return true;
  // The library of old made no stream of FLV script data; passed over, such a
  // file keeps the values of the streams after it.
  bool flv = ctx->iformat != nullptr && strcmp(ctx->iformat->name, "flv") == 0;
  return flv && (st->codecpar->codec_type == AVMEDIA_TYPE_SUBTITLE || st->codecpar->codec_type == AVMEDIA_TYPE_DATA);
}

ContainerTags GetContainerTags(const AVFormatContext* ctx) {
  ContainerTags tags = TagsOf(ctx->metadata);
  if (HasAny(tags)) return tags;
  for (unsigned i = 0; i < ctx->nb_streams; ++i) {
    const AVStream* st = ctx->streams[i];
    if (st->codecpar->codec_type == AVMEDIA_TYPE_AUDIO) return TagsOf(st->metadata);
  }
  return tags;
}

int ProbeDescriptor(int fd, const char* path, MediaInfo* info, ProbeMode mode) {
  return ProbeStreams(fd, path, info, mode);
}

namespace {

// Ogg and WMA files our readers can vouch for. One look at the first bytes
// says which reader may know the file, so every other file reaches the probe
// without either reader's head read (16 and 4 KiB).
bool ReadByOwnAudioReader(int fd, int64_t length, MediaInfo* info) {
  uint8_t head[16];
  if (!ReadFullyAt(fd, head, sizeof head, 0)) return false;
  if (StartsWithOggPage(head, sizeof head)) return ReadOggValues(fd, length, info);
  if (StartsWithAsfHeader(head, sizeof head)) return ReadAsfValues(fd, length, info);
  return false;
}

// Opens the file for the probe helper. Non-blocking, so that a FIFO put in
// place of the file cannot hold the run; anything but a regular file (a FIFO,
// a device, a folder) is refused here, unread.
int ProbeFile(const char* path, MediaInfo* info, ProbeMode mode) {
  FdOwner fd(open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat st;
  if (fd.get() < 0 || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
    ORVO_LOG("%s (%d) Failed to av_open_input_file() file [%s].", path);
    return -1;
  }
  // The advice holds for the open file, so the helper's reads through this
  // descriptor read no more than libavformat asks for.
  AdviseFewReads(fd.get());
  // MP4 and QuickTime video our box reader can vouch for, Ogg Vorbis and
  // Opus our page reader can, and WMA our header reader can, never reach the
  // probe.
  if (mode == ProbeMode::kTuned &&
      (ReadMp4VideoValues(fd.get(), path, st.st_size, info) || ReadByOwnAudioReader(fd.get(), st.st_size, info)))
    return 0;
  return ProbeInHelper(fd.get(), path, info, mode);
}

}  // namespace

int ReadMediaInfo(const char* path, MediaInfo* info, ProbeMode mode) {
  if (ProbeFile(path, info, mode) < 0) {
    ORVO_LOG("%s (%d) Failed to get Misc Media Info from [%s].", path);
    return -1;
  }
  return 0;
}
