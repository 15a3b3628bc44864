#include "meta/aac_decode.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/dict.h>
#include <libavutil/frame.h>
#include <libavutil/mem.h>
}

#include "meta/metamedia.h"

namespace {

// The library's own reading of an AudioSpecificConfig, so that the rate and
// channel count the decoder starts from are exactly the demuxer's. The
// record is the library's (version 59), read only for the fields below; the
// buffer handed over is larger than the record so that no write can spill.
struct AudioConfig {
  int object_type;
  int sampling_index;
  int sample_rate;
  int chan_config;
  int sbr;
  int ext_object_type;
  int ext_sampling_index;
  int ext_sample_rate;
  int ext_chan_config;
  int channels;
  int ps;
  int frame_length_short;
  int spare[20];
};
static_assert(LIBAVCODEC_VERSION_MAJOR == 59, "AudioConfig mirrors version 59's record");

struct CodecLibrary {
  decltype(&avcodec_find_decoder) findDecoder;
  decltype(&avcodec_alloc_context3) allocContext;
  decltype(&avcodec_free_context) freeContext;
  decltype(&avcodec_parameters_alloc) allocParameters;
  decltype(&avcodec_parameters_free) freeParameters;
  decltype(&avcodec_parameters_to_context) toContext;
  decltype(&avcodec_open2) open;
  decltype(&avcodec_send_packet) sendPacket;
  decltype(&avcodec_receive_frame) receiveFrame;
  decltype(&av_packet_alloc) allocPacket;
  decltype(&av_packet_free) freePacket;
  decltype(&av_new_packet) newPacket;
  decltype(&av_frame_alloc) allocFrame;
  decltype(&av_frame_free) freeFrame;
  decltype(&av_dict_set) dictSet;
  decltype(&av_dict_free) dictFree;
  decltype(&av_mallocz) mallocz;
  int (*readConfig)(AudioConfig*, const uint8_t*, int, int, void*);
};

// Loaded with the probe's libraries, before the helper confines itself.
const CodecLibrary* LoadCodec() {
  static const CodecLibrary* loaded = [] {
    static CodecLibrary lib;
    void* codec = OpenAvLibrary("libavcodec", LIBAVCODEC_VERSION_MAJOR, RTLD_NOW | RTLD_LOCAL);
    void* util = OpenAvLibrary("libavutil", LIBAVUTIL_VERSION_MAJOR, RTLD_NOW | RTLD_LOCAL);
    bool ok = ResolveAv(codec, "avcodec_find_decoder", lib.findDecoder) &&
              ResolveAv(codec, "avcodec_alloc_context3", lib.allocContext) &&
              ResolveAv(codec, "avcodec_free_context", lib.freeContext) &&
              ResolveAv(codec, "avcodec_parameters_alloc", lib.allocParameters) &&
              ResolveAv(codec, "avcodec_parameters_free", lib.freeParameters) &&
              ResolveAv(codec, "avcodec_parameters_to_context", lib.toContext) &&
              ResolveAv(codec, "avcodec_open2", lib.open) && ResolveAv(codec, "avcodec_send_packet", lib.sendPacket) &&
              ResolveAv(codec, "avcodec_receive_frame", lib.receiveFrame) &&
              ResolveAv(codec, "av_packet_alloc", lib.allocPacket) && ResolveAv(codec, "av_packet_free", lib.freePacket) &&
              ResolveAv(codec, "av_new_packet", lib.newPacket) && ResolveAv(util, "av_frame_alloc", lib.allocFrame) &&
              ResolveAv(util, "av_frame_free", lib.freeFrame) && ResolveAv(util, "av_dict_set", lib.dictSet) &&
              ResolveAv(util, "av_dict_free", lib.dictFree) && ResolveAv(util, "av_mallocz", lib.mallocz) &&
              ResolveAv(codec, "avpriv_mpeg4audio_get_config2", lib.readConfig);
    return ok ? &lib : nullptr;
  }();
  return loaded;
}

struct ContextFreer {
  void operator()(AVCodecContext* c) const { LoadCodec()->freeContext(&c); }
};
struct ParametersFreer {
  void operator()(AVCodecParameters* p) const { LoadCodec()->freeParameters(&p); }
};
struct PacketFreer {
  void operator()(AVPacket* p) const { LoadCodec()->freePacket(&p); }
};
struct FrameFreer {
  void operator()(AVFrame* f) const { LoadCodec()->freeFrame(&f); }
};
struct DictFreer {
  void operator()(AVDictionary* d) const { LoadCodec()->dictFree(&d); }
};

// The object types the demuxer hands to other decoders than AAC: the old
// MP3-on-MP4 draft, layers 1 to 3 and ALS.
bool AacObjectType(int type) { return type != 29 && type != 32 && type != 33 && type != 34 && type != 36; }

}  // namespace

bool LoadAacDecoder() { return LoadCodec() != nullptr; }

bool DecodeAacUnit(int fd, const AacUnit& unit, int32_t* sample_rate, int32_t* channels) {
  const CodecLibrary* lib = LoadCodec();
  if (lib == nullptr || unit.config_size == 0 || unit.config_size > kAacConfigLimit || unit.size == 0 ||
      unit.size > kAacUnitLimit || unit.offset < 0) {
    return false;
  }
  AudioConfig config{};
  if (lib->readConfig(&config, unit.config, static_cast<int>(unit.config_size), 1, nullptr) < 0 ||
      !AacObjectType(config.object_type)) {
    return false;
  }
  const AVCodec* decoder = lib->findDecoder(AV_CODEC_ID_AAC);
  std::unique_ptr<AVCodecParameters, ParametersFreer> par(lib->allocParameters());
  if (decoder == nullptr || !par) return false;
  // What the demuxer's sample entry and ES descriptor leave in the stream.
  par->codec_type = AVMEDIA_TYPE_AUDIO;
  par->codec_id = AV_CODEC_ID_AAC;
  par->codec_tag = MKTAG('m', 'p', '4', 'a');
  par->ch_layout.order = AV_CHANNEL_ORDER_UNSPEC;
  par->ch_layout.nb_channels = config.channels;
  par->sample_rate = config.ext_sample_rate != 0 ? config.ext_sample_rate : config.sample_rate;
  par->extradata = static_cast<uint8_t*>(lib->mallocz(unit.config_size + AV_INPUT_BUFFER_PADDING_SIZE));
  if (par->extradata == nullptr) return false;
  memcpy(par->extradata, unit.config, unit.config_size);
  par->extradata_size = static_cast<int>(unit.config_size);

  std::unique_ptr<AVCodecContext, ContextFreer> ctx(lib->allocContext(nullptr));
  if (!ctx || lib->toContext(ctx.get(), par.get()) < 0) return false;
  AVDictionary* raw = nullptr;
  lib->dictSet(&raw, "threads", "1", 0);
  lib->dictSet(&raw, "lowres", "0", 0);
  std::unique_ptr<AVDictionary, DictFreer> options(raw);
  raw = options.release();
  int opened = lib->open(ctx.get(), decoder, &raw);
  options.reset(raw);
  if (opened < 0) return false;

  std::unique_ptr<AVPacket, PacketFreer> packet(lib->allocPacket());
  std::unique_ptr<AVFrame, FrameFreer> frame(lib->allocFrame());
  if (!packet || !frame || lib->newPacket(packet.get(), static_cast<int>(unit.size)) < 0) return false;
  ssize_t n;
  do {
    n = pread(fd, packet->data, unit.size, unit.offset);
  } while (n < 0 && errno == EINTR);
  if (n != static_cast<ssize_t>(unit.size)) return false;
  if (lib->sendPacket(ctx.get(), packet.get()) < 0 || lib->receiveFrame(ctx.get(), frame.get()) < 0) return false;
  *sample_rate = ctx->sample_rate;
  *channels = ctx->ch_layout.nb_channels;
  return true;
}
