#include "meta/asf_reader.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "meta/byte_reader.h"
#include "meta/metamedia.h"
#include "platform/text_encoding.h"

namespace {

// What the first read takes. A header object that says it is longer (tags of a few KiB)
// is read whole in one more read, up to kHeadLimit; longer headers
// (pictures of a megabyte) are left to the probe.
constexpr size_t kHeadFirstRead = 4096;
constexpr size_t kHeadLimit = size_t{1} << 20;
// More tags than this are left to the probe: its dictionary searches every
// one for every new one.
constexpr size_t kTagLimit = 4096;
// The data object's own header, which the demuxer reads before it is open.
constexpr uint64_t kDataHeader = 50;

using Guid = uint8_t[16];

constexpr Guid kHeader = {0x30, 0x26, 0xB2, 0x75, 0x8E, 0x66, 0xCF, 0x11,
                          0xA6, 0xD9, 0x00, 0xAA, 0x00, 0x62, 0xCE, 0x6C};
constexpr Guid kFileProperties = {0xA1, 0xDC, 0xAB, 0x8C, 0x47, 0xA9, 0xCF, 0x11,
                                  0x8E, 0xE4, 0x00, 0xC0, 0x0C, 0x20, 0x53, 0x65};
constexpr Guid kStreamProperties = {0x91, 0x07, 0xDC, 0xB7, 0xB7, 0xA9, 0xCF, 0x11,
                                    0x8E, 0xE6, 0x00, 0xC0, 0x0C, 0x20, 0x53, 0x65};
constexpr Guid kExtStreamProperties = {0xCB, 0xA5, 0xE6, 0x14, 0x72, 0xC6, 0x32, 0x43,
                                       0x83, 0x99, 0xA9, 0x69, 0x52, 0x06, 0x5B, 0x5A};
constexpr Guid kAudioMedia = {0x40, 0x9E, 0x69, 0xF8, 0x4D, 0x5B, 0xCF, 0x11,
                              0xA8, 0xFD, 0x00, 0x80, 0x5F, 0x5C, 0x44, 0x2B};
constexpr Guid kContentDescription = {0x33, 0x26, 0xB2, 0x75, 0x8E, 0x66, 0xCF, 0x11,
                                      0xA6, 0xD9, 0x00, 0xAA, 0x00, 0x62, 0xCE, 0x6C};
constexpr Guid kData = {0x36, 0x26, 0xB2, 0x75, 0x8E, 0x66, 0xCF, 0x11,
                        0xA6, 0xD9, 0x00, 0xAA, 0x00, 0x62, 0xCE, 0x6C};
constexpr Guid kHeaderExtension = {0xB5, 0x03, 0xBF, 0x5F, 0x2E, 0xA9, 0xCF, 0x11,
                                   0x8E, 0xE3, 0x00, 0xC0, 0x0C, 0x20, 0x53, 0x65};
constexpr Guid kExtContentDescription = {0x40, 0xA4, 0xD0, 0xD2, 0x07, 0xE3, 0xD2, 0x11,
                                         0x97, 0xF0, 0x00, 0xA0, 0xC9, 0x5E, 0xA8, 0x50};
constexpr Guid kMetadata = {0xEA, 0xCB, 0xF8, 0xC5, 0xAF, 0x5B, 0x77, 0x48,
                            0x84, 0x67, 0xAA, 0x8C, 0x44, 0xFA, 0x4C, 0xCA};
constexpr Guid kMetadataLibrary = {0x94, 0x1C, 0x23, 0x44, 0x98, 0x94, 0xD1, 0x49,
                                   0xA1, 0x41, 0x1D, 0x13, 0x4E, 0x45, 0x70, 0x54};
constexpr Guid kMarker = {0x01, 0xCD, 0x87, 0xF4, 0x51, 0xA9, 0xCF, 0x11,
                          0x8E, 0xE6, 0x00, 0xC0, 0x0C, 0x20, 0x53, 0x65};
constexpr Guid kContentEncryption = {0xFB, 0xB3, 0x11, 0x22, 0x23, 0xBD, 0xD2, 0x11,
                                     0xB4, 0xB7, 0x00, 0xA0, 0xC9, 0x55, 0xFC, 0x6E};
constexpr Guid kExtContentEncryption = {0x14, 0xE6, 0x8A, 0x29, 0x22, 0x26, 0x17, 0x4C,
                                        0xB9, 0x35, 0xDA, 0xE0, 0x7E, 0xE9, 0x28, 0x9C};
constexpr Guid kDigitalSignature = {0xFC, 0xB3, 0x11, 0x22, 0x23, 0xBD, 0xD2, 0x11,
                                    0xB4, 0xB7, 0x00, 0xA0, 0xC9, 0x55, 0xFC, 0x6E};

// Value types of the description and metadata objects.
enum ValueType : int { kUnicode = 0, kByteArray = 1, kBool = 2, kDword = 3, kQword = 4, kWord = 5 };

constexpr uint16_t kWmaV1 = 0x0160, kWmaV2 = 0x0161;

// Little-endian reads at a position that moves as the demuxer's does. A
// read or a seek past the bytes held marks the cursor spent and gives 0s;
// the reader then vouches for nothing, so what the demuxer would have read
// there never matters.
struct Cursor {
  const uint8_t* data;
  uint64_t size;
  uint64_t at = 0;
  bool spent = false;

  bool Has(uint64_t n) {
    if (!spent && at <= size && n <= size - at) return true;
    spent = true;
    return false;
  }
  uint32_t U16() {
    if (!Has(2)) return 0;
    uint32_t v = data[at] | uint32_t{data[at + 1]} << 8;
    at += 2;
    return v;
  }
  // The low half is read first: the operands of | have no order of their own.
  uint32_t U32() {
    uint32_t low = U16();
    return low | U16() << 16;
  }
  uint64_t U64() {
    uint64_t low = U32();
    return low | uint64_t{U32()} << 32;
  }
  bool IsGuid(const Guid& g) { return Has(16) && memcmp(data + at, g, 16) == 0; }
  void Skip(uint64_t n) {
    if (Has(n)) at += n;
  }
  void Seek(uint64_t to) {
    if (to > size) spent = true;
    at = to;
  }
};

// UTF-16LE text of at most `maxlen` bytes into UTF-8, as the demuxer's
// string reader converts it: up to the first NUL or the first unit that is
// no part of a surrogate pair, into a buffer of `room` bytes whose last is
// the terminator (a character may be cut). Returns the reader's count, which
// counts a pair's second unit even when it lay past `maxlen` and was not read.
int ReadText(Cursor* c, int maxlen, size_t room, std::string* out) {
  out->clear();
  int ret = 0;
  auto put = [out, room](uint32_t byte) {
    if (out->size() + 1 < room) out->push_back(static_cast<char>(byte));
  };
  // Bounded: every pass adds 2 to `ret`, until it reaches `maxlen`.
  while (ret + 1 < maxlen && !c->spent) {
    uint32_t ch = (ret += 2) <= maxlen ? c->U16() : 0;
    uint32_t hi = ch - 0xD800;
    if (hi < 0x800) {
      ch = ((ret += 2) <= maxlen ? c->U16() : 0) - 0xDC00;
      if (ch > 0x3FF || hi > 0x3FF) break;
      ch += (hi << 10) + 0x10000;
    }
    if (ch == 0) break;
    if (ch < 0x80) {
      put(ch);
    } else if (ch < 0x800) {
      put(0xC0 | ch >> 6);
      put(0x80 | (ch & 0x3F));
    } else if (ch < 0x10000) {
      put(0xE0 | ch >> 12);
      put(0x80 | (ch >> 6 & 0x3F));
      put(0x80 | (ch & 0x3F));
    } else {
      put(0xF0 | ch >> 18);
      put(0x80 | (ch >> 12 & 0x3F));
      put(0x80 | (ch >> 6 & 0x3F));
      put(0x80 | (ch & 0x3F));
    }
  }
  return ret;
}

// A name: read, then the rest of its `len` bytes skipped when the text ended early.
std::string ReadName(Cursor* c, int len, size_t room) {
  std::string name;
  int ret = ReadText(c, len, room, &name);
  if (ret < len) c->Skip(static_cast<uint64_t>(len - ret));
  return name;
}

bool SameKey(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    auto up = [](char ch) { return ch >= 'a' && ch <= 'z' ? static_cast<char>(ch - 32) : ch; };
    if (up(a[i]) != up(b[i])) return false;
  }
  return true;
}

// A dictionary entry set as the probe's dictionary sets it: an entry of the
// same name (without case) is dropped, the last entry moved into its place,
// and the new one appended.
void SetTag(std::vector<AsfTag>* dict, std::string key, std::string value) {
  for (size_t i = 0; i < dict->size(); ++i) {
    if (!SameKey((*dict)[i].key, key)) continue;
    if (i + 1 != dict->size()) (*dict)[i] = std::move(dict->back());
    dict->pop_back();
    break;
  }
  dict->push_back({std::move(key), std::move(value)});
}

// The demuxer's numeric value: read as `int`, so a DWORD or QWORD past
// 2^31 - 1 comes out sign-extended (deliberate: kept as the probe stores it).
// A BOOL is 32 bits in the extended content description and 16 in the
// metadata objects. Other types read nothing.
int64_t NumericValue(Cursor* c, int type, int bool_bits) {
  switch (type) {
    case kBool: return static_cast<int32_t>(bool_bits == 32 ? c->U32() : c->U16());
    case kDword: return static_cast<int32_t>(c->U32());
    case kQword: return static_cast<int32_t>(static_cast<uint32_t>(c->U64()));
    case kWord: return static_cast<int32_t>(c->U16());
    default: return INT_MIN;
  }
}

struct Walk {
  // File properties as last read (zero before any).
  uint64_t file_size = 0, play_time = 0;
  uint32_t preroll = 0, flags = 0;
  int streams = 0;
  bool refused = false;
  bool has_duration = false;
  int64_t duration_ms = 0;  // the stream's, in its 1/1000 time base
  int64_t audio_bit_rate = 0;
  int32_t sample_rate = 0, channels = 0;
  int stream_id = -1;
  uint32_t leak_rates[128] = {};
  std::vector<AsfTag> dict;
};

// One tag's value into the dictionary, as the demuxer's tag reader takes
// it; the cursor ends `len` bytes after where the value starts.
void ReadTag(Cursor* c, Walk* w, const std::string& key, int type, int len, int bool_bits) {
  const uint64_t off = c->at;
  std::string value;
  if (key.compare(0, 3, "xmp") == 0) {
    // XMP is not exported.
  } else if (type == kUnicode) {
    ReadText(c, len, 2 * static_cast<size_t>(len) + 1, &value);
  } else if (type == kByteArray) {
    // A picture becomes a stream and an ID3 tag more tags: both are the probe's.
    if (key == "WM/Picture" || key == "ID3") w->refused = true;
  } else if (type == kBool || type == kDword || type == kQword || type == kWord) {
    value = std::to_string(static_cast<uint64_t>(NumericValue(c, type, bool_bits)));
  }
  if (!value.empty()) {
    if (w->dict.size() >= kTagLimit) w->refused = true;
    SetTag(&w->dict, key, std::move(value));
  }
  c->Seek(off + static_cast<uint64_t>(len));
}

// Aspect ratio entries are read as bare numbers: no skip to the value's end.
bool AspectRatioName(const std::string& name) { return name == "AspectRatioX" || name == "AspectRatioY"; }

void ReadFileProperties(Cursor* c, Walk* w) {
  c->Skip(16);  // file id
  w->file_size = c->U64();
  c->Skip(16);  // creation time, packet count
  w->play_time = c->U64();
  c->Skip(8);  // send duration
  w->preroll = c->U32();
  c->Skip(4);
  w->flags = c->U32();
  uint32_t min_packet = c->U32();
  if (min_packet >= (1u << 29)) w->refused = true;  // the demuxer fails to open
}

void ReadStreamProperties(Cursor* c, Walk* w, uint64_t gpos, uint64_t gsize, int64_t length) {
  if (++w->streams > 1 || !c->IsGuid(kAudioMedia)) {
    w->refused = true;
    return;
  }
  if ((w->flags & 1) == 0) {
    // Unless the file size field is far from the file's, the stream takes
    // its duration from the play duration less the preroll.
    auto declared = static_cast<int64_t>(w->file_size);
    if (declared <= 0 ||
        static_cast<uint64_t>(std::llabs(length - declared)) < std::min<uint64_t>(length, w->file_size) / 20) {
      w->has_duration = true;
      w->duration_ms = static_cast<int64_t>(w->play_time / 10000 - w->preroll);
    }
  }
  c->Skip(32);  // stream type, error correction type
  c->Skip(8);   // time offset
  uint32_t format_size = c->U32();
  c->Skip(4);
  w->stream_id = static_cast<int>(c->U16() & 0x7F);
  c->Skip(4);
  // The format must lie whole inside the object; the demuxer would read on.
  if (format_size < 18 || gsize < 78 || format_size > gsize - 78 || c->at != gpos + 78) {
    w->refused = true;
    return;
  }
  uint32_t tag = c->U16();
  w->channels = static_cast<int32_t>(c->U16());
  w->sample_rate = static_cast<int32_t>(c->U32());
  w->audio_bit_rate = int64_t{c->U32()} * 8;
  if ((tag != kWmaV1 && tag != kWmaV2) || w->sample_rate <= 0 || w->channels <= 0) w->refused = true;
}

// Its stream's leak rate, which stands in for a format's bit rate of 0. The
// cursor ends after the object's fixed part, names and payload extensions,
// where the demuxer goes on (a stream properties object may follow there).
void ReadExtStreamProperties(Cursor* c, Walk* w) {
  c->Skip(16);  // start and end time
  uint32_t leak_rate = c->U32();
  c->Skip(28);
  uint32_t stream = c->U16();
  c->Skip(2 + 8);  // language index, average time per frame
  uint32_t names = c->U16();
  uint32_t extensions = c->U16();
  if (stream < 128) w->leak_rates[stream] = leak_rate;
  // Bounded by the 16-bit counts, and each pass reads or stops.
  for (uint32_t i = 0; i < names && !c->spent; ++i) {
    c->Skip(2);
    c->Skip(c->U16());
  }
  for (uint32_t i = 0; i < extensions && !c->spent; ++i) {
    c->Skip(16 + 2);
    uint32_t len = c->U32();
    if (len > INT_MAX) return;  // the demuxer stops reading the object here
    c->Skip(len);
  }
}

void ReadContentDescription(Cursor* c, Walk* w) {
  int len[5];
  for (int& l : len) l = static_cast<int>(c->U16());
  static const char* const kNames[4] = {"title", "author", "copyright", "comment"};
  for (int i = 0; i < 4; ++i) ReadTag(c, w, kNames[i], kUnicode, len[i], 32);
}

void ReadExtContentDescription(Cursor* c, Walk* w) {
  uint32_t count = c->U16();
  // Bounded by the 16-bit count, and each pass reads or stops.
  for (uint32_t i = 0; i < count && !c->spent && !w->refused; ++i) {
    int name_len = static_cast<int>(c->U16());
    if (name_len % 2) name_len += 1;  // writers that gave the length less one
    std::string name = ReadName(c, name_len, 1024);
    int type = static_cast<int>(c->U16());
    int value_len = static_cast<int>(c->U16());
    if (type == kUnicode && value_len % 2) value_len += 1;
    if (AspectRatioName(name))
      NumericValue(c, type, 32);
    else
      ReadTag(c, w, name, type, value_len, 32);
  }
}

void ReadMetadata(Cursor* c, Walk* w) {
  uint32_t count = c->U16();
  // Bounded by the 16-bit count, and each pass reads or stops.
  for (uint32_t i = 0; i < count && !c->spent && !w->refused; ++i) {
    c->Skip(4);  // language index, stream number
    int name_len = static_cast<int>(c->U16());
    int type = static_cast<int>(c->U16());
    uint32_t value_len = c->U32();
    if (value_len > 0xFFFF) return;  // the demuxer stops reading the object here
    std::string name = ReadName(c, name_len, 2 * static_cast<size_t>(name_len) + 1);
    if (AspectRatioName(name))
      NumericValue(c, type, 16);
    else
      ReadTag(c, w, name, type, static_cast<int>(value_len), 16);
  }
}

// The header walk as the demuxer opens the file, from after the header
// object's own fields to the data object's header. Header extension
// objects are walked into.
bool WalkHeader(Cursor* c, Walk* w, int64_t length) {
  c->Seek(30);
  // Bounded: every pass moves the cursor on by 22 bytes or more, or stops.
  for (;;) {
    const uint64_t gpos = c->at;
    const bool data = c->IsGuid(kData);
    const bool file = c->IsGuid(kFileProperties), stream = c->IsGuid(kStreamProperties);
    const bool ext_stream = c->IsGuid(kExtStreamProperties), extension = c->IsGuid(kHeaderExtension);
    const bool description = c->IsGuid(kContentDescription), ext_description = c->IsGuid(kExtContentDescription);
    const bool metadata = c->IsGuid(kMetadata) || c->IsGuid(kMetadataLibrary);
    const bool refused = c->IsGuid(kMarker) || c->IsGuid(kContentEncryption) ||
                         c->IsGuid(kExtContentEncryption) || c->IsGuid(kDigitalSignature);
    c->Skip(16);
    const uint64_t gsize = c->U64();
    if (c->spent || w->refused || refused) return false;
    // The size is signed to the demuxer: past 2^63 it is below 24 and opening fails.
    if (data) {
      // The data object's header must be there too, or opening fails.
      return gpos + kDataHeader <= static_cast<uint64_t>(length) && c->Has(kDataHeader - 24);
    }
    if (static_cast<int64_t>(gsize) < 24) return false;
    if (file) {
      ReadFileProperties(c, w);
    } else if (stream) {
      ReadStreamProperties(c, w, gpos, gsize, length);
    } else if (description) {
      ReadContentDescription(c, w);
    } else if (ext_description) {
      ReadExtContentDescription(c, w);
    } else if (metadata) {
      ReadMetadata(c, w);
    } else if (ext_stream) {
      ReadExtStreamProperties(c, w);
      continue;
    } else if (extension) {
      c->Skip(16 + 6);
      continue;
    }
    if (w->refused || gpos + gsize < gpos) return false;
    c->Seek(gpos + gsize);
  }
}

// What the demuxer's dictionary becomes under its renaming of ASF names to
// generic ones (first name of the table that matches without case).
std::vector<AsfTag> RenamedTags(std::vector<AsfTag> dict) {
  static const char* const kRenames[][2] = {
      {"WM/AlbumArtist", "album_artist"}, {"WM/AlbumTitle", "album"},
      {"Author", "artist"},               {"Description", "comment"},
      {"WM/Composer", "composer"},        {"WM/EncodedBy", "encoded_by"},
      {"WM/EncodingSettings", "encoder"}, {"WM/Genre", "genre"},
      {"WM/Language", "language"},        {"WM/OriginalFilename", "filename"},
      {"WM/PartOfSet", "disc"},           {"WM/Publisher", "publisher"},
      {"WM/Tool", "encoder"},             {"WM/TrackNumber", "track"},
      {"WM/MediaStationCallSign", "service_provider"}, {"WM/MediaStationName", "service_name"},
  };
  std::vector<AsfTag> renamed;
  for (AsfTag& tag : dict) {
    std::string key = std::move(tag.key);
    for (const auto& rename : kRenames) {
      if (SameKey(key, rename[0])) {
        key = rename[1];
        break;
      }
    }
    SetTag(&renamed, std::move(key), std::move(tag.value));
  }
  return renamed;
}

// Into the record as the probe copies a file with one audio stream.
void Store(const AsfValues& values, MediaInfo* info) {
  ContainerTags tags = ContainerTagsFrom([&values](const char* key) -> const char* {
    for (const AsfTag& t : values.tags)
      if (SameKey(t.key, key)) return t.value.c_str();
    return nullptr;
  });
  StoreOneAudioStream(tags, values.bit_rate, values.duration, values.sample_rate, values.channels,
                      values.audio_bit_rate, info);
}

// The header object's size as it declares it, for the second read.
uint64_t DeclaredHeaderSize(const uint8_t* data) {
  uint64_t v = 0;
  for (int i = 7; i >= 0; --i) v = v << 8 | data[16 + i];
  return v;
}

}  // namespace

bool ReadAsfMemory(const uint8_t* data, size_t size, int64_t length, AsfValues* values) {
  if (size < 30 || length < static_cast<int64_t>(size) || !StartsWithAsfHeader(data, size)) return false;
  Cursor c{data, size};
  Walk w;
  if (!WalkHeader(&c, &w, length) || w.streams != 1 || !w.has_duration) return false;
  // A stream duration of 0 or less leaves the container without one (and
  // without a bit rate); one too long for microseconds is the probe's.
  if (w.duration_ms > INT64_MAX / 1000) return false;
  AsfValues out;
  if (w.duration_ms > 0) {
    out.duration = w.duration_ms * 1000;
    double bit_rate = static_cast<double>(length) * 8.0 * 1000000 / static_cast<double>(out.duration);
    out.bit_rate = bit_rate >= 0 && bit_rate <= static_cast<double>(INT64_MAX) ? static_cast<int64_t>(bit_rate) : 0;
  }
  out.audio_bit_rate = w.audio_bit_rate != 0 ? w.audio_bit_rate : int64_t{w.leak_rates[w.stream_id]};
  out.sample_rate = w.sample_rate;
  out.channels = w.channels;
  out.tags = RenamedTags(std::move(w.dict));
  *values = std::move(out);
  return true;
}

bool StartsWithAsfHeader(const uint8_t* head, size_t size) {
  return size >= sizeof kHeader && memcmp(head, kHeader, sizeof kHeader) == 0;
}

bool ReadAsfValues(int fd, int64_t length, MediaInfo* info) {
  if (length < 30) return false;
  size_t want = static_cast<size_t>(std::min<int64_t>(length, kHeadFirstRead));
  auto head = std::make_unique_for_overwrite<uint8_t[]>(want);
  if (!ReadFullyAt(fd, head.get(), want, 0) || !StartsWithAsfHeader(head.get(), want)) return false;
  const uint64_t declared = DeclaredHeaderSize(head.get());
  if (declared + kDataHeader > want && want < static_cast<uint64_t>(length)) {
    if (declared > kHeadLimit) return false;
    size_t longer = static_cast<size_t>(std::min<uint64_t>(static_cast<uint64_t>(length), declared + kDataHeader));
    auto whole = std::make_unique_for_overwrite<uint8_t[]>(longer);
    memcpy(whole.get(), head.get(), want);
    if (!ReadFullyAt(fd, whole.get() + want, longer - want, static_cast<int64_t>(want))) return false;
    head = std::move(whole);
    want = longer;
  }
  AsfValues values;
  if (!ReadAsfMemory(head.get(), want, length, &values)) return false;
  Store(values, info);
  return true;
}

bool ReadAsfValues(const char* path, MediaInfo* info) {
  return ReadOpenedAsProbe(path, [](int fd, int64_t length, MediaInfo* out) { return ReadAsfValues(fd, length, out); }, info);
}
