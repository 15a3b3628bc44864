#include "meta/metamedia.h"

#include <dlfcn.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

extern "C" {
#include <libavutil/log.h>
}

#include "meta/probe_tuning.h"
#include "platform/log.h"

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

// The versions the build's headers describe; the structures we read must
// match the library's, so no other version is tried.
std::string SoName(const char* base, int major) { return std::string(base) + ".so." + std::to_string(major); }

template <typename Function>
bool Resolve(void* library, const char* name, Function& out) {
  out = reinterpret_cast<Function>(dlsym(library, name));
  return out != nullptr;
}

const AvLibrary* Load() {
  static AvLibrary av;
  // Never closed: the library stays for the life of the process.
  void* util = dlopen(SoName("libavutil", LIBAVUTIL_VERSION_MAJOR).c_str(), RTLD_NOW | RTLD_LOCAL);
  void* format = util ? dlopen(SoName("libavformat", LIBAVFORMAT_VERSION_MAJOR).c_str(), RTLD_NOW | RTLD_LOCAL)
                      : nullptr;
  decltype(&av_log_set_level) setLogLevel = nullptr;
  if (format == nullptr || !Resolve(util, "av_log_set_level", setLogLevel) ||
      !Resolve(util, "av_dict_get", av.dictGet) || !Resolve(util, "av_dict_set", av.dictSet) ||
      !Resolve(util, "av_dict_free", av.dictFree) || !Resolve(format, "avformat_open_input", av.openInput) ||
      !Resolve(format, "avformat_find_stream_info", av.findStreamInfo) ||
      !Resolve(format, "avformat_close_input", av.closeInput) ||
      !Resolve(format, "av_find_input_format", av.findInputFormat)) {
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

const AvLibrary* LoadAv() {
  static const AvLibrary* av = Load();
  return av;
}

namespace {

const char* Tag(const AVDictionary* dict, const char* key) {
  const AVDictionaryEntry* e = LoadAv()->dictGet(dict, key, nullptr, 0);
  return e != nullptr ? e->value : nullptr;
}

ContainerTags TagsOf(const AVDictionary* dict) {
  ContainerTags t;
  t.title = Tag(dict, "title");
  t.artist = Tag(dict, "artist");
  if (t.artist == nullptr) t.artist = Tag(dict, "author");
  t.album = Tag(dict, "album");
  t.date = Tag(dict, "date");
  if (t.date == nullptr) t.date = Tag(dict, "year");
  t.track = Tag(dict, "track");
  t.genre = Tag(dict, "genre");
  return t;
}

bool HasAny(const ContainerTags& t) {
  return t.title || t.artist || t.album || t.date || t.track || t.genre;
}

bool NotEmpty(const char* s) { return s != nullptr && s[0] != '\0'; }

void Copy(char* field, size_t bound, const char* text) { snprintf(field, bound, "%s", text); }

// PCM bit rates are worked out from the format; everything else trusts the
// codec's own figure.
int64_t AudioBitRate(const AVCodecParameters* par) {
  int64_t rate = par->sample_rate;
  int64_t channels = par->ch_layout.nb_channels;
  if (par->codec_id >= 0x10000 && par->codec_id <= 0x10003) return rate * channels * 16;
  if (par->codec_id >= 0x10004 && par->codec_id <= 0x10007) return rate * channels * 8;
  return par->bit_rate;
}

int ProbeStreams(const char* path, MediaInfo* info, ProbeMode mode) {
  int result = -1;
  AVFormatContext* raw = nullptr;
  // Registration happens inside libavformat since its demuxers became a
  // static table; there is nothing left to call before opening a file.
  const AvLibrary* av = LoadAv();
  if (av == nullptr || av->openInput(&raw, path, nullptr, nullptr) < 0) {
    ORVO_LOG("%s (%d) Failed to av_open_input_file() file [%s].", path);
    return -1;
  }
  AvInput ctx(raw);
  if (AnalyseStreams(ctx.get(), mode) < 0) {
    ORVO_LOG("%s (%d) Could not find codec parameters.  %s", path);
    return -1;
  }

  ContainerTags tags = GetContainerTags(ctx.get());
  info->video_bitrate = static_cast<int32_t>(ctx->bit_rate);
  // An unknown duration (AV_NOPTS_VALUE) would come out hugely negative and be
  // cleared by MediaInfoValid; store the 0 it ends as straight away.
  int64_t seconds = ctx->duration == AV_NOPTS_VALUE ? 0 : ctx->duration / 1000000;
  info->duration = static_cast<float>(seconds);
  if (NotEmpty(tags.genre)) Copy(info->genre, sizeof info->genre, tags.genre);
  if (NotEmpty(tags.artist)) Copy(info->artist, sizeof info->artist, tags.artist);
  if (NotEmpty(tags.title)) Copy(info->title, sizeof info->title, tags.title);
  int year = tags.date != nullptr ? atoi(tags.date) : 0;
  if (year != 0) snprintf(info->year, sizeof info->year, "%d", year);
  info->track = tags.track != nullptr ? atoi(tags.track) : 0;

  bool audio_seen = false;
  bool video_seen = false;
  int64_t bitrate = 0;
  bool all_streams = true;
  for (unsigned i = 0; i < ctx->nb_streams; ++i) {
    const AVStream* st = ctx->streams[i];
    if (IsSideStream(st)) continue;
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

ContainerTags GetContainerTags(const AVFormatContext* ctx) {
  ContainerTags tags = TagsOf(ctx->metadata);
  if (HasAny(tags)) return tags;
  for (unsigned i = 0; i < ctx->nb_streams; ++i) {
    const AVStream* st = ctx->streams[i];
    if (st->codecpar->codec_type == AVMEDIA_TYPE_AUDIO) return TagsOf(st->metadata);
  }
  return tags;
}

int ReadMediaInfo(const char* path, MediaInfo* info, ProbeMode mode) {
  if (ProbeStreams(path, info, mode) < 0) {
    ORVO_LOG("%s (%d) Failed to get Misc Media Info from [%s].", path);
    return -1;
  }
  return 0;
}
