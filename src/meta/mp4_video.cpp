#include "meta/mp4_video.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "meta/aac_decode.h"
#include "meta/h264_sps.h"
#include "meta/mp4_reader.h"
#include "meta/probe_helper.h"
#include "platform/text_encoding.h"

namespace {

constexpr uint32_t Fourcc(const char (&s)[5]) {
  return uint32_t{static_cast<unsigned char>(s[0])} << 24 | uint32_t{static_cast<unsigned char>(s[1])} << 16 |
         uint32_t{static_cast<unsigned char>(s[2])} << 8 | uint32_t{static_cast<unsigned char>(s[3])};
}

// The analysis reads packets until every sound and picture track has given
// one, or until it has read 5,000,000 bytes. The sound track's first frame
// is read among the others' packets of the first second or so of media
// (packets go in time order, by position within a second); the bytes of
// their first 3 s must stay well below that limit.
constexpr uint64_t kEarlyBytesLimit = 4000000;

// Reads bits from the front of a byte string; past its end, `over` is set.
struct BitReader {
  const uint8_t* data;
  size_t size;
  size_t bit = 0;
  bool over = false;
  uint32_t Get(int count) {
    uint32_t value = 0;
    for (int i = 0; i < count; ++i, ++bit) {
      if (bit / 8 >= size) {
        over = true;
        return 0;
      }
      value = value << 1 | ((data[bit / 8] >> (7 - bit % 8)) & 1);
    }
    return value;
  }
};

// Calls `each` with the last byte of every start code (00 00 01 xx) of
// `data` and the offset just past it, until it returns false.
template <typename Each>
void EachStartCode(const uint8_t* data, size_t size, Each each) {
  for (size_t i = 0; i + 3 < size; ++i) {
    if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1 && !each(data[i + 3], i + 4)) return;
  }
}

// The picture size an MPEG-4 Part 2 decoder takes from the video object
// layer header of the codec's setup: the one layer header, before any
// picture, of a rectangular layer that is no studio profile. False for
// anything else.
bool MpegFourLayerSize(const std::string& config, int32_t* width, int32_t* height) {
  const auto* data = reinterpret_cast<const uint8_t*>(config.data());
  size_t layer = 0;
  int layers = 0;
  bool picture_first = false;
  EachStartCode(data, config.size(), [&](uint8_t code, size_t at) {
    if (code == 0xB6) picture_first = layers == 0;
    if (code == 0xB6) return false;
    if (code >= 0x20 && code <= 0x2F) layer = at, ++layers;
    return true;
  });
  if (layers != 1 || picture_first) return false;
  BitReader bits{data + layer, config.size() - layer};
  bits.Get(1);                              // random access
  uint32_t type = bits.Get(8);
  if (type == 14 || type == 15) return false;  // studio profiles
  if (bits.Get(1)) bits.Get(7);             // layer verid and priority
  if (bits.Get(4) == 15) bits.Get(16);      // extended pixel aspect
  if (bits.Get(1)) {                        // control parameters
    bits.Get(3);
    if (bits.Get(1)) bits.Get(79);          // buffer parameters
  }
  if (bits.Get(2) != 0) return false;       // not rectangular
  bits.Get(1);
  uint32_t resolution = bits.Get(16);
  if (resolution == 0) return false;
  int increment_bits = 1;
  while (increment_bits < 16 && (1u << increment_bits) < resolution) ++increment_bits;
  bits.Get(1);
  if (bits.Get(1)) bits.Get(increment_bits);  // fixed picture rate
  bits.Get(1);
  *width = static_cast<int32_t>(bits.Get(13));
  bits.Get(1);
  *height = static_cast<int32_t>(bits.Get(13));
  return !bits.over && *width > 0 && *height > 0;
}

// A track's picture size as its decoder reports it. H.264: the size the
// sample entry gives, when the sequence parameter set tells the same
// decoded size. MPEG-4 Part 2: the layer header's size (the decoder sets it
// from the setup before the first picture).
bool PlainPicture(const Mp4MovieTrack& t, int32_t* width, int32_t* height) {
  if (t.format == Fourcc("mp4v")) return t.object_type == 0x20 && MpegFourLayerSize(t.config, width, height);
  *width = t.width;
  *height = t.height;
  if (t.width <= 0 || t.height <= 0) return false;
  H264PictureSize sps;
  int decoded_width, decoded_height;
  const auto* config = reinterpret_cast<const uint8_t*>(t.config.data());
  if (!ReadH264PictureSize(config, t.config.size(), &sps)) return false;
  H264DecodedSize(sps, t.width, t.height, &decoded_width, &decoded_height);
  return decoded_width == t.width && decoded_height == t.height;
}

// AAC (MPEG-4 and the three MPEG-2 profiles) with its config and a first
// frame the helper will read.
bool PlainSound(const Mp4MovieTrack& t) {
  return t.format == Fourcc("mp4a") && (t.object_type == 0x40 || (t.object_type >= 0x66 && t.object_type <= 0x68)) &&
         !t.config.empty() && t.config.size() <= kAacConfigLimit && t.first_size > 0 &&
         t.first_size <= kAacUnitLimit;
}

// The demuxer's per-track bit rate: the sizes' total over the track's
// duration, which is the media header's bounded by the time-to-sample
// table's. Unsigned 64-bit arithmetic, as the demuxer's.
int64_t SoundBitRate(const Mp4MovieTrack& t) {
  uint64_t duration = t.table_duration != 0 && t.table_duration < t.duration ? t.table_duration : t.duration;
  return static_cast<int64_t>(t.sample_bytes * 8 * t.time_scale / duration);
}

// `value` * 1,000,000 / `scale`, rounded to the nearest, halves away from 0.
int64_t Microseconds(uint64_t value, uint32_t scale) {
  unsigned __int128 scaled = static_cast<unsigned __int128>(value) * 1000000u + scale / 2;
  return static_cast<int64_t>(scaled / scale);
}

struct FileCloser {
  void operator()(FILE* f) const { fclose(f); }
};

// Opens a regular file without blocking on anything else, as the probe does.
FILE* OpenRegular(const char* path) {
  int fd = open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  struct stat st;
  if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    if (fd >= 0) close(fd);
    return nullptr;
  }
  FILE* file = fdopen(fd, "rb");
  if (file == nullptr) close(fd);
  return file;
}

// True when the file starts with a box a movie file starts with; the other
// files the generic handlers see cost one short read.
bool StartsLikeAMovie(int fd) {
  uint8_t head[8];
  if (pread(fd, head, sizeof head, 0) != static_cast<ssize_t>(sizeof head)) return false;
  uint32_t type = uint32_t{head[4]} << 24 | uint32_t{head[5]} << 16 | uint32_t{head[6]} << 8 | head[7];
  for (uint32_t t : {Fourcc("ftyp"), Fourcc("moov"), Fourcc("mdat"), Fourcc("free"), Fourcc("skip"), Fourcc("wide")})
    if (t == type) return true;
  return false;
}

bool IntraPictureFirst(int fd, const Mp4MovieTrack& t) {
  uint8_t head[256];
  size_t want = t.first_size < sizeof head ? t.first_size : sizeof head;
  if (pread(fd, head, want, static_cast<off_t>(t.first_offset)) != static_cast<ssize_t>(want)) return false;
  bool intra = false;
  EachStartCode(head, want, [&](uint8_t code, size_t at) {
    if (code >= 0x20 && code <= 0x2F) return false;
    if (code != 0xB6) return true;
    intra = at < want && (head[at] >> 6) == 0;
    return false;
  });
  return intra;
}

}  // namespace

bool WorkOutMp4Values(const Mp4Movie& movie, int64_t length, Mp4Values* values) {
  *values = Mp4Values{};
  if (!movie.plain || movie.tagged || length <= 0) return false;
  uint64_t early = 0;
  int32_t width = 0, height = 0;
  for (int i = 0; i < movie.track_count; ++i) {
    const Mp4MovieTrack& t = movie.tracks[i];
    if (t.handler == Fourcc("vide") ? !PlainPicture(t, &width, &height) : !PlainSound(t)) return false;
    if (t.handler == Fourcc("soun")) values->sound = &t;
  }
  // As the probe stores them: the last picture's size.
  values->width = width;
  values->height = height;
  if (const Mp4MovieTrack* sound = values->sound) {
    for (int i = 0; i < movie.track_count; ++i)
      if (&movie.tracks[i] != sound) early += movie.tracks[i].early_bytes;
    // The first frame is the first sample only while the edit starts within
    // the media's first second (the demuxer keeps a second before it for the
    // decoder), and it is read early only while the track starts early.
    if (early >= kEarlyBytesLimit || sound->media_time > static_cast<int64_t>(sound->time_scale) ||
        sound->empty_edit > static_cast<int64_t>(movie.time_scale)) {
      return false;
    }
  }

  // The container: the movie header's duration, and the bit rate of the
  // whole file over it.
  values->duration = Microseconds(movie.duration, movie.time_scale);
  if (values->duration <= 0) return false;
  double rate = static_cast<double>(length) * 8.0 * 1000000 / static_cast<double>(values->duration);
  values->bit_rate = rate >= 0 && rate <= static_cast<double>(INT64_MAX) ? static_cast<int64_t>(rate) : 0;

  // And the last sound bit rate that is not 0.
  for (int i = 0; i < movie.track_count; ++i) {
    const Mp4MovieTrack& t = movie.tracks[i];
    if (t.handler != Fourcc("soun")) continue;
    int64_t bitrate = SoundBitRate(t);
    if (bitrate != 0) values->sound_bit_rate = bitrate;
  }
  return true;
}

bool ReadMp4VideoValues(int fd, const char* path, int64_t length, MediaInfo* info) {
  if (length <= 0 || !StartsLikeAMovie(fd)) return false;
  // A stream over a duplicate: the caller keeps its descriptor open.
  int copy = dup(fd);
  std::unique_ptr<FILE, FileCloser> file(copy >= 0 ? fdopen(copy, "rb") : nullptr);
  if (!file) {
    if (copy >= 0) close(copy);
    return false;
  }
  setvbuf(file.get(), nullptr, _IONBF, 0);
  // On the heap: the reader's buffer and eight tracks' tables are too big for a stack frame.
  auto movie = std::make_unique<Mp4Movie>();
  auto reader = std::make_unique<ByteReader>();
  memset(reader.get(), 0, sizeof *reader);
  ByteReaderAttachFile(reader.get(), file.get(), length);
  Mp4Values values;
  if (ReadMp4Movie(reader.get(), movie.get()) != Mp4Result::kOk || !WorkOutMp4Values(*movie, length, &values))
    return false;

  // An MPEG-4 Part 2 track's first sample must be a picture the decoder
  // reads with the setup's layer header: an intra picture with no layer
  // header of its own before it.
  for (int i = 0; i < movie->track_count; ++i) {
    const Mp4MovieTrack& t = movie->tracks[i];
    if (t.format == Fourcc("mp4v") && !IntraPictureFirst(fd, t)) return false;
  }

  // The last sound's rate and channels, as its first frame decodes.
  int32_t sample_rate = 0, channels = 0;
  if (const Mp4MovieTrack* sound = values.sound) {
    AacUnit unit;
    memset(&unit, 0, sizeof unit);
    unit.offset = static_cast<int64_t>(sound->first_offset);
    unit.size = sound->first_size;
    unit.config_size = static_cast<uint32_t>(sound->config.size());
    memcpy(unit.config, sound->config.data(), sound->config.size());
    if (!DecodeAacInHelper(fd, path, unit, &sample_rate, &channels) || sample_rate <= 0) return false;
  }

  info->video_bitrate = static_cast<int32_t>(values.bit_rate);
  info->duration = static_cast<float>(values.duration / 1000000);
  const Mp4MovieTags& tags = movie->tags;
  if (!tags.genre.empty()) orvo::CopyTextField(info->genre, sizeof info->genre, tags.genre);
  if (!tags.artist.empty()) orvo::CopyTextField(info->artist, sizeof info->artist, tags.artist);
  if (!tags.title.empty()) orvo::CopyTextField(info->title, sizeof info->title, tags.title);
  int year = atoi(tags.date.c_str());
  if (year != 0) snprintf(info->year, sizeof info->year, "%d", year);
  info->track = atoi(tags.track.c_str());
  // A video's album is a collection name; only sound-only files take it.
  if (values.width == 0 && !tags.album.empty()) orvo::CopyTextField(info->album, sizeof info->album, tags.album);
  if (values.width != 0) {
    info->width = values.width;
    info->height = values.height;
  }
  if (values.sound != nullptr) {
    info->channels = channels;
    info->frequency = sample_rate;
  }
  if (values.sound_bit_rate != 0) info->bitrate = static_cast<int32_t>(values.sound_bit_rate);
  return true;
}

bool ReadMp4VideoValues(const char* path, MediaInfo* info) {
  std::unique_ptr<FILE, FileCloser> file(OpenRegular(path));
  if (!file) return false;
  struct stat st;
  if (fstat(fileno(file.get()), &st) != 0) return false;
  return ReadMp4VideoValues(fileno(file.get()), path, st.st_size, info);
}
