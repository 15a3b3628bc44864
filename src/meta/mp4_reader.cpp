#include "meta/mp4_reader.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <memory>

#include "meta/metaid3.h"
#include "platform/read_advice.h"

namespace {

// Caps on what a damaged or hostile file can make the walk do. Each step of
// a walk moves on by at least a box header, so these also bound the reads.
constexpr int kMaxTopLevelBoxes = 4096;
constexpr int kMaxChildren = 4096;  // per container box
// A sample size table longer than this (days of audio) is not summed to its
// end; there, and in a table cut short, the average of the entries read
// stands for the rest.
constexpr uint32_t kMaxSummedSamples = 1u << 22;

constexpr uint32_t Fourcc(const char (&s)[5]) {
  return uint32_t{static_cast<unsigned char>(s[0])} << 24 | uint32_t{static_cast<unsigned char>(s[1])} << 16 |
         uint32_t{static_cast<unsigned char>(s[2])} << 8 | uint32_t{static_cast<unsigned char>(s[3])};
}

constexpr uint32_t kMoov = Fourcc("moov"), kTrak = Fourcc("trak"), kTkhd = Fourcc("tkhd"), kMdia = Fourcc("mdia"),
                   kMdhd = Fourcc("mdhd"), kHdlr = Fourcc("hdlr"), kMinf = Fourcc("minf"), kStbl = Fourcc("stbl"),
                   kStsd = Fourcc("stsd"), kStsz = Fourcc("stsz"), kEsds = Fourcc("esds"), kWave = Fourcc("wave"),
                   kUdta = Fourcc("udta"), kMeta = Fourcc("meta"), kIlst = Fourcc("ilst"), kData = Fourcc("data"),
                   kName = Fourcc("\xa9nam"), kAlbum = Fourcc("\xa9" "alb"), kArtist = Fourcc("\xa9" "ART"),
                   kGenreText = Fourcc("\xa9gen"), kGenreIndex = Fourcc("gnre"), kDay = Fourcc("\xa9" "day"),
                   kTrackNumber = Fourcc("trkn");

uint16_t Be16(const uint8_t* p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }
uint32_t Be32(const uint8_t* p) {
  return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}
uint64_t Be64(const uint8_t* p) { return uint64_t{Be32(p)} << 32 | Be32(p + 4); }

// Reads exactly `n` bytes at `offset`; false when they are not all in the
// source. Short reads go through the reader's buffer, so walking the box
// headers of one region costs one read.
bool ReadAt(ByteReader* reader, int64_t offset, void* out, size_t n) {
  if (offset < 0 || offset > reader->length || static_cast<uint64_t>(reader->length - offset) < n) return false;
  int64_t last = offset + static_cast<int64_t>(n);
  if (!ByteReaderCached(reader, offset) || last > reader->end) {
    if (n > static_cast<size_t>(kByteReaderBufferSize)) {
      return ReadBytes(reader, offset, out, n) == static_cast<int64_t>(n);
    }
    if (ByteReaderFill(reader, offset) < 0 || last > reader->end) return false;
  }
  memcpy(out, reader->buffer + (offset - reader->start), n);
  return true;
}

// One box: its type, where its contents start (after the 8- or 16-byte
// header) and where it ends, cut at its parent's end.
struct Box {
  uint32_t type = 0;
  int64_t content = 0;
  int64_t end = 0;
  bool cut = false;  // it claimed more than its parent holds
};

// The box at `at` inside a parent ending at `parent_end`. False when no
// whole header fits, or the size is below the header's (the rest of the
// parent cannot be walked). Size 0 runs to the parent's end, size 1 is
// followed by a 64-bit size.
bool NextBox(ByteReader* reader, int64_t at, int64_t parent_end, Box* box) {
  if (at < 0 || parent_end - at < 8) return false;
  uint8_t head[16];
  if (!ReadAt(reader, at, head, 8)) return false;
  uint64_t size = Be32(head);
  int64_t header = 8;
  if (size == 1) {
    if (parent_end - at < 16 || !ReadAt(reader, at + 8, head + 8, 8)) return false;
    size = Be64(head + 8);
    header = 16;
  } else if (size == 0) {
    size = static_cast<uint64_t>(parent_end - at);
  }
  if (size < static_cast<uint64_t>(header)) return false;
  box->type = Be32(head + 4);
  box->content = at + header;
  box->cut = size > static_cast<uint64_t>(parent_end - at);
  box->end = box->cut ? parent_end : at + static_cast<int64_t>(size);
  return true;
}

// The first child of `type` among the boxes from `from` to `end`.
bool FindBox(ByteReader* reader, int64_t from, int64_t end, uint32_t type, Box* found) {
  Box child;
  int64_t at = from;
  for (int i = 0; i < kMaxChildren && NextBox(reader, at, end, &child); ++i, at = child.end) {
    if (child.type == type) {
      *found = child;
      return true;
    }
  }
  return false;
}

bool FindChild(ByteReader* reader, const Box& parent, uint32_t type, Box* found) {
  return FindBox(reader, parent.content, parent.end, type, found);
}

// Media header: the time scale and the duration in it (version 1: 64-bit
// times). False when it is too short for its fields.
bool ReadMediaHeader(ByteReader* reader, const Box& mdhd, Mp4Track* track) {
  uint8_t b[32];
  if (!ReadAt(reader, mdhd.content, b, 1)) return false;
  if (b[0] == 1) {
    if (mdhd.end - mdhd.content < 32 || !ReadAt(reader, mdhd.content, b, 32)) return false;
    track->time_scale = Be32(b + 20);
    track->duration = Be64(b + 24);
    track->duration_unknown = track->duration == UINT64_MAX;
  } else {
    if (mdhd.end - mdhd.content < 20 || !ReadAt(reader, mdhd.content, b, 20)) return false;
    track->time_scale = Be32(b + 12);
    track->duration = Be32(b + 16);
    // Deliberate departure: the 32-bit all-ones value is "unknown" as well,
    // not 136 years of media.
    track->duration_unknown = track->duration == UINT32_MAX;
  }
  return true;
}

// The length of an MPEG-4 descriptor: up to four 7-bit groups.
bool DescriptorValue(const uint8_t* b, size_t n, size_t* pos, uint32_t* length) {
  *length = 0;
  for (int i = 0; i < 4; ++i) {
    if (*pos >= n) return false;
    uint8_t c = b[(*pos)++];
    *length = *length << 7 | (c & 0x7F);
    if ((c & 0x80) == 0) break;
  }
  return true;
}

// The DecoderConfigDescriptor inside the ES_Descriptor of an 'esds' box's
// `n` bytes `b`: true with `*pos` at its 13 fixed bytes (objectTypeIndication,
// streamType, bufferSizeDB (3), maxBitrate (4), avgBitrate (4)).
bool FindDecoderConfig(const uint8_t* b, size_t n, size_t* pos) {
  uint32_t length;
  *pos = 4;  // version and flags
  if (*pos >= n || b[(*pos)++] != 0x03 || !DescriptorValue(b, n, pos, &length)) return false;
  *pos += 2;  // ES_ID
  if (*pos >= n) return false;
  uint8_t flags = b[(*pos)++];
  if (flags & 0x80) *pos += 2;                          // dependsOn_ES_ID
  if (flags & 0x40) *pos += *pos < n ? 1 + b[*pos] : 1;  // URL
  if (flags & 0x20) *pos += 2;                          // OCR_ES_Id
  if (*pos >= n || b[(*pos)++] != 0x04 || !DescriptorValue(b, n, pos, &length)) return false;
  return n >= 13 && *pos <= n - 13;
}

// The average bit rate of an 'esds' box's DecoderConfigDescriptor, inside
// its ES_Descriptor. False when the descriptors are not there.
bool ReadEsdsBitRate(ByteReader* reader, const Box& esds, uint32_t* avg_bitrate) {
  uint8_t b[320];  // version/flags, ES_Descriptor with the longest URL, DecoderConfigDescriptor
  int64_t available = esds.end - esds.content;
  size_t n = available < static_cast<int64_t>(sizeof b) ? static_cast<size_t>(available) : sizeof b;
  size_t pos;
  if (!ReadAt(reader, esds.content, b, n) || !FindDecoderConfig(b, n, &pos)) return false;
  *avg_bitrate = Be32(b + pos + 9);
  return true;
}

// The first sample entry of a sound or video track: the channel count, or
// the picture size, and the ES descriptor among the entry's child boxes.
void ReadSampleEntry(ByteReader* reader, const Box& stsd, Mp4Track* track) {
  uint8_t b[64];
  Box entry;
  if (!ReadAt(reader, stsd.content, b, 8) || Be32(b + 4) == 0) return;
  if (!NextBox(reader, stsd.content + 8, stsd.end, &entry)) return;
  int64_t length = entry.end - entry.content;
  int64_t children;
  bool sound = strcmp(track->handler, "soun") == 0;
  if (sound) {
    // Sound sample entry: 28 bytes; QuickTime's version 1 adds 16 bytes and
    // version 2 36, where the real channel count then lies.
    if (length < 28 || !ReadAt(reader, entry.content, b, 28)) return;
    uint16_t version = Be16(b + 8);
    track->channels = Be16(b + 16);
    children = entry.content + 28;
    if (version == 1) children += 16;
    if (version == 2) {
      children += 36;
      if (length >= 64 && ReadAt(reader, entry.content + 28, b + 28, 36)) {
        uint32_t count = Be32(b + 40);
        track->channels = count > INT32_MAX ? -1 : static_cast<int32_t>(count);
      }
    }
  } else {
    // Visual sample entry: the coded size, then 78 bytes in all.
    if (length < 28 || !ReadAt(reader, entry.content, b, 28)) return;
    track->width = Be16(b + 24);
    track->height = Be16(b + 26);
    children = entry.content + 78;
  }
  Box esds, wave;
  bool found = FindBox(reader, children, entry.end, kEsds, &esds);
  // QuickTime keeps a sound entry's descriptor inside a 'wave' box.
  if (!found && sound && FindBox(reader, children, entry.end, kWave, &wave)) {
    found = FindChild(reader, wave, kEsds, &esds);
  }
  if (found) track->has_esds = ReadEsdsBitRate(reader, esds, &track->esds_avg_bitrate);
}

// The total of the sample size table: one size for all, or one per sample.
uint64_t SampleSizeTotal(ByteReader* reader, const Box& stsz) {
  uint8_t b[4096];
  if (stsz.end - stsz.content < 12 || !ReadAt(reader, stsz.content, b, 12)) return 0;
  uint64_t size = Be32(b + 4), count = Be32(b + 8);
  if (size != 0) return size * count;
  uint64_t listed = static_cast<uint64_t>(stsz.end - stsz.content - 12) / 4;
  uint64_t summed = count < listed ? count : listed;
  if (summed > kMaxSummedSamples) summed = kMaxSummedSamples;
  uint64_t total = 0;
  int64_t at = stsz.content + 12;
  for (uint64_t done = 0; done < summed;) {
    size_t chunk = summed - done < sizeof b / 4 ? static_cast<size_t>(summed - done) : sizeof b / 4;
    if (!ReadAt(reader, at, b, chunk * 4)) break;
    for (size_t i = 0; i < chunk; ++i) total += Be32(b + 4 * i);
    done += chunk;
    at += static_cast<int64_t>(chunk * 4);
  }
  if (summed > 0 && count > summed) total = total / summed * count;
  return total;
}

void ReadSampleTable(ByteReader* reader, const Box& minf, Mp4Track* track) {
  Box stbl, stsd, stsz;
  if (!FindChild(reader, minf, kStbl, &stbl)) return;
  if (FindChild(reader, stbl, kStsd, &stsd)) ReadSampleEntry(reader, stsd, track);
  if (!track->has_esds && FindChild(reader, stbl, kStsz, &stsz)) track->sample_bytes = SampleSizeTotal(reader, stsz);
}

// One 'trak': counted as a track when it has a track header and a media
// header; its sample table is read only for the sound and video tracks the
// record takes.
void ReadTrack(ByteReader* reader, const Box& trak, Mp4Info* info) {
  Box tkhd, mdia, mdhd, hdlr, minf;
  Mp4Track track;
  if (!FindChild(reader, trak, kTkhd, &tkhd) || !FindChild(reader, trak, kMdia, &mdia) ||
      !FindChild(reader, mdia, kMdhd, &mdhd) || !ReadMediaHeader(reader, mdhd, &track)) {
    return;
  }
  ++info->tracks;
  uint8_t b[12];
  if (FindChild(reader, mdia, kHdlr, &hdlr) && hdlr.end - hdlr.content >= 12 && ReadAt(reader, hdlr.content, b, 12)) {
    memcpy(track.handler, b + 8, 4);
  }
  // First sound track, last video track: the asymmetry is deliberate.
  bool first_sound = strcmp(track.handler, "soun") == 0 && !info->sound.found;
  bool video = strcmp(track.handler, "vide") == 0;
  if (!first_sound && !video) return;
  if (FindChild(reader, mdia, kMinf, &minf)) ReadSampleTable(reader, minf, &track);
  track.found = true;
  (first_sound ? info->sound : info->video) = track;
}

// Drops the last UTF-8 sequence of a cut text when the cut left it
// incomplete, so that the rest still reads as UTF-8.
void DropCutSequence(std::string* text) {
  size_t n = text->size();
  for (size_t back = 1; back <= 4 && back <= n; ++back) {
    uint8_t c = static_cast<uint8_t>((*text)[n - back]);
    if ((c & 0xC0) == 0x80) continue;
    size_t need = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : c >= 0xC0 ? 2 : 1;
    if (need > back) text->erase(n - back);
    return;
  }
}

// An item's value: the bytes after the type and locale words of its first
// 'data' box, at most kMp4TagTextLimit of them.
bool ReadItemValue(ByteReader* reader, const Box& item, std::string* value) {
  Box data;
  if (!FindChild(reader, item, kData, &data) || data.end - data.content < 8) return false;
  uint64_t length = static_cast<uint64_t>(data.end - data.content - 8);
  bool cut = length > kMp4TagTextLimit;
  value->resize(cut ? kMp4TagTextLimit : length);
  if (!ReadAt(reader, data.content + 8, value->data(), value->size())) {
    value->clear();
    return false;
  }
  if (cut) DropCutSequence(value);
  return true;
}

// The iTunes tags of 'udta'/'meta'/'ilst'. A numeric 'gnre' names an ID3
// genre (1-based) and wins over a text '©gen'.
void ReadTags(ByteReader* reader, const Box& udta, Mp4Tags* tags) {
  Box meta, ilst, item;
  if (!FindChild(reader, udta, kMeta, &meta)) return;
  // 'meta' is a full box (version and flags first); QuickTime writes it
  // without them, its handler box straight away.
  uint8_t b[8];
  if (!ReadAt(reader, meta.content, b, 8) || Be32(b + 4) != kHdlr) meta.content += 4;
  if (!FindChild(reader, meta, kIlst, &ilst)) return;
  std::string genre_index;
  int64_t at = ilst.content;
  for (int i = 0; i < kMaxChildren && NextBox(reader, at, ilst.end, &item); ++i, at = item.end) {
    std::string* text = nullptr;
    switch (item.type) {
      case kName: text = &tags->title; break;
      case kAlbum: text = &tags->album; break;
      case kArtist: text = &tags->artist; break;
      case kGenreText: text = &tags->genre; break;
      case kDay: text = &tags->year; break;
      case kGenreIndex: text = &genre_index; break;
      case kTrackNumber: {
        std::string number;
        if (ReadItemValue(reader, item, &number) && number.size() >= 4) {
          tags->track = Be16(reinterpret_cast<const uint8_t*>(number.data()) + 2);
        }
        break;
      }
      default: break;
    }
    if (text != nullptr) ReadItemValue(reader, item, text);
  }
  if (genre_index.size() >= 2) {
    int index = Be16(reinterpret_cast<const uint8_t*>(genre_index.data()));
    if (index >= 1 && index <= kId3GenreCount) tags->genre = kId3Genres[index - 1];
  }
}

// ---------------------------------------------------------------------------
// The movie for the video path. Every container below is read against the
// list of child boxes the path accounts for; any other child makes the file
// not plain, and the generic probe reads it.

constexpr uint32_t kFtyp = Fourcc("ftyp"), kMdat = Fourcc("mdat"), kFree = Fourcc("free"), kSkip = Fourcc("skip"),
                   kWide = Fourcc("wide"), kUuid = Fourcc("uuid"), kMvhd = Fourcc("mvhd"), kIods = Fourcc("iods"),
                   kEdts = Fourcc("edts"), kElst = Fourcc("elst"), kTapt = Fourcc("tapt"), kElng = Fourcc("elng"),
                   kVmhd = Fourcc("vmhd"), kSmhd = Fourcc("smhd"), kDinf = Fourcc("dinf"), kDref = Fourcc("dref"),
                   kAlis = Fourcc("alis"), kStts = Fourcc("stts"), kCtts = Fourcc("ctts"), kStsc = Fourcc("stsc"),
                   kStco = Fourcc("stco"), kCo64 = Fourcc("co64"), kStss = Fourcc("stss"), kStps = Fourcc("stps"),
                   kSdtp = Fourcc("sdtp"), kSgpd = Fourcc("sgpd"), kSbgp = Fourcc("sbgp"), kCslg = Fourcc("cslg"),
                   kSoun = Fourcc("soun"), kVide = Fourcc("vide"), kAvcC = Fourcc("avcC"), kPasp = Fourcc("pasp"),
                   kColr = Fourcc("colr"), kBtrt = Fourcc("btrt"), kClap = Fourcc("clap"), kFiel = Fourcc("fiel"),
                   kGama = Fourcc("gama"), kFrma = Fourcc("frma"), kMp4a = Fourcc("mp4a"), kEnda = Fourcc("enda"),
                   kKeys = Fourcc("keys"), kMdta = Fourcc("mdta"), kCovr = Fourcc("covr"), kAvif = Fourcc("avif"), kChan = Fourcc("chan"),
                   kAvc1 = Fourcc("avc1"), kAvc3 = Fourcc("avc3"),
                   kFreeform = Fourcc("----"), kMp4v = Fourcc("mp4v");

bool OneOf(uint32_t type, std::initializer_list<uint32_t> types) {
  for (uint32_t t : types) {
    if (t == type) return true;
  }
  return false;
}

// The item and string types the generic probe turns into a title, artist,
// album, date, genre or track (iTunes items, QuickTime and 3GPP strings),
// cover art (a picture stream of its own) and freeform items (which name
// their own tag).
bool RecordTagType(uint32_t type) {
  return OneOf(type, {kName, kAlbum, kArtist, kGenreText, kGenreIndex, kDay, kTrackNumber, Fourcc("\xa9" "aut"),
                      Fourcc("\xa9trk"), Fourcc("titl"), Fourcc("auth"), Fourcc("albm"), Fourcc("yrrc"),
                      Fourcc("perf"), kCovr, kFreeform});
}

// Calls `each` on every child box of `parent`; false when a child claims
// more than the parent holds or a header is damaged before the end.
template <typename Each>
bool EachChild(ByteReader* reader, const Box& parent, Each each) {
  Box child;
  int64_t at = parent.content;
  for (int i = 0; i < kMaxChildren; ++i, at = child.end) {
    if (at == parent.end) return true;
    if (!NextBox(reader, at, parent.end, &child) || child.cut) return false;
    if (!each(child)) return false;
  }
  return false;
}

// A 'meta' box (moov, trak or udta level): tags when its items hold any the
// record takes, or when it keys its items by name.
bool MetaHasRecordTags(ByteReader* reader, Box meta) {
  uint8_t b[12];
  if (!ReadAt(reader, meta.content, b, 8)) return true;
  if (Be32(b + 4) != kHdlr) meta.content += 4;  // a full box, as the iTunes reader says
  bool tags = false;
  bool walked = EachChild(reader, meta, [&](const Box& child) {
    if (child.type == kKeys) tags = true;
    if (child.type == kHdlr && (!ReadAt(reader, child.content, b, 12) || Be32(b + 8) == kMdta)) tags = true;
    if (child.type == kIlst) {
      EachChild(reader, child, [&](const Box& item) {
        if (RecordTagType(item.type)) tags = true;
        return true;
      });
    }
    return !tags;
  });
  return tags || !walked;
}

bool UdtaHasRecordTags(ByteReader* reader, const Box& udta) {
  bool tags = false;
  EachChild(reader, udta, [&](const Box& child) {
    if (RecordTagType(child.type) || (child.type == kMeta && MetaHasRecordTags(reader, child))) tags = true;
    return !tags;
  });
  return tags;
}

// Where the text of an item or string of `type` goes, by the name the probe
// gives it; null for the types read otherwise or not at all.
std::string* TagText(uint32_t type, Mp4MovieTags* tags) {
  switch (type) {
    case kName: return &tags->title;
    case kArtist: case Fourcc("\xa9" "aut"): return &tags->artist;
    case kAlbum: return &tags->album;
    case kDay: return &tags->date;
    case kGenreText: return &tags->genre;
    case Fourcc("\xa9trk"): return &tags->track;
    default: return nullptr;
  }
}

// A QuickTime string straight in 'udta': a 16-bit length, a language code
// and the text. Under a Macintosh language code the probe converts the
// bytes from Mac Roman; only pure ASCII reads the same either way. False
// for that and for lengths the probe reads past the box or as raw data.
bool ReadQuickTimeString(ByteReader* reader, const Box& box, std::string* text) {
  uint8_t b[4];
  int64_t content = box.end - box.content;
  if (content <= 4 || !ReadAt(reader, box.content, b, 4)) return false;
  uint16_t length = Be16(b), language = Be16(b + 2);
  if (length > content - 4 || length > kMp4TagTextLimit) return false;
  text->resize(length);
  if (!ReadAt(reader, box.content + 4, text->data(), length)) return false;
  text->resize(strnlen(text->data(), text->size()));
  bool mac = language < 0x400 || language == 0x7fff;
  for (char c : *text) {
    if (mac && static_cast<uint8_t>(c) >= 0x80) return false;
  }
  return true;
}

// The movie's iTunes items ('moov'/'udta'/'meta'/'ilst') as the probe's
// demuxer turns them into tags: the first child of each item must be its
// 'data' box, text items are UTF-8 (type 1) and end at their first NUL, a
// track number is the first 16-bit signed number, and a later item of a
// name wins. False (the file is left to the probe) for what that path does
// not follow: other text types, genre numbers, cover art, freeform items,
// names keyed elsewhere, a 'meta' box not starting with its handler. The
// QuickTime strings beside the items are read too (ReadQuickTimeString).
bool ReadMovieTags(ByteReader* reader, const Box& udta, Mp4MovieTags* tags) {
  return EachChild(reader, udta, [&](const Box& child) {
    if (child.type != kMeta) {
      if (!RecordTagType(child.type)) return true;
      std::string* text = TagText(child.type, tags);
      return text != nullptr && ReadQuickTimeString(reader, child, text);
    }
    Box meta = child;
    uint8_t b[16];
    if (!ReadAt(reader, meta.content, b, 8)) return false;
    if (Be32(b + 4) != kHdlr) meta.content += 4;
    // The probe reads a 'meta' box from its handler on, and one without
    // a handler not at all.
    Box first;
    if (!NextBox(reader, meta.content, meta.end, &first) || first.type != kHdlr) return false;
    return EachChild(reader, meta, [&](const Box& box) {
      if (box.type == kKeys) return false;
      if (box.type == kHdlr) return ReadAt(reader, box.content, b, 12) && Be32(b + 8) != kMdta;
      if (box.type != kIlst) return true;
      return EachChild(reader, box, [&](const Box& item) {
        std::string* text = item.type == kTrackNumber ? &tags->track : TagText(item.type, tags);
        if (text == nullptr) return !RecordTagType(item.type);
        if (item.end - item.content <= 8 || !ReadAt(reader, item.content, b, 16)) return true;
        uint64_t size = Be32(b);
        if (Be32(b + 4) != kData || size < 16 || size > static_cast<uint64_t>(item.end - item.content)) return true;
        uint32_t type = Be32(b + 8);
        uint64_t length = size - 16;
        if (item.type == kTrackNumber) {
          uint8_t n[4];
          if (length < 4 || !ReadAt(reader, item.content + 16, n, 4)) return false;
          *text = std::to_string(static_cast<int16_t>(Be16(n + 2)));
          return true;
        }
        if (type != 1) return false;
        text->resize(length < kMp4TagTextLimit ? length : kMp4TagTextLimit);
        if (!ReadAt(reader, item.content + 16, text->data(), text->size())) return false;
        text->resize(strnlen(text->data(), text->size()));
        if (length > kMp4TagTextLimit) DropCutSequence(text);
        return true;
      });
    });
  });
}

// The edit list: an empty first edit (the media starts later) and where the
// first real edit starts in the media. False for edits the path does not
// follow: negative starts other than the empty edit, rates other than 1.
bool ReadEdits(ByteReader* reader, const Box& edts, Mp4MovieTrack* track) {
  Box elst;
  if (!FindChild(reader, edts, kElst, &elst)) return true;
  uint8_t b[20];
  if (elst.end - elst.content < 8 || !ReadAt(reader, elst.content, b, 8)) return false;
  bool wide = b[0] == 1;
  uint32_t count = Be32(b + 4);
  int64_t entry = wide ? 20 : 12;
  if (count == 0) return true;
  if (count > 64 || (elst.end - elst.content - 8) / entry < count) return false;
  bool started = false;
  for (uint32_t i = 0; i < count; ++i) {
    if (!ReadAt(reader, elst.content + 8 + i * entry, b, static_cast<size_t>(entry))) return false;
    int64_t duration = wide ? static_cast<int64_t>(Be64(b)) : Be32(b);
    int64_t time = wide ? static_cast<int64_t>(Be64(b + 8)) : static_cast<int32_t>(Be32(b + 4));
    uint32_t rate = Be32(b + (wide ? 16 : 8));
    if (i == 0 && time == -1) {
      if (duration < 0) return false;
      track->empty_edit = duration;
      continue;
    }
    if (time < 0 || rate != 0x00010000) return false;
    if (!started) track->media_time = time;
    started = true;
  }
  return true;
}

// Data references: an alias long enough to name another file makes the
// probe try to open it.
bool SelfContained(ByteReader* reader, const Box& dinf) {
  Box dref;
  if (!FindChild(reader, dinf, kDref, &dref)) return true;
  Box entries = dref;
  entries.content += 8;  // version, flags, entry count
  if (entries.content > entries.end) return false;
  return EachChild(reader, entries, [](const Box& entry) {
    return entry.type != kAlis || entry.end - entry.content + 8 <= 150;
  });
}

// An 'esds' box: the object type and the decoder-specific info.
bool ReadEsdsConfig(ByteReader* reader, const Box& esds, Mp4MovieTrack* track) {
  uint8_t b[512];
  int64_t available = esds.end - esds.content;
  if (available > static_cast<int64_t>(sizeof b)) return false;
  size_t n = static_cast<size_t>(available);
  if (!ReadAt(reader, esds.content, b, n)) return false;
  size_t pos;
  uint32_t length;
  if (!FindDecoderConfig(b, n, &pos)) return false;
  track->object_type = b[pos];
  pos += 13;
  if (pos >= n || b[pos++] != 0x05 || !DescriptorValue(b, n, &pos, &length)) return false;
  if (length == 0 || length > n - pos) return false;
  track->config.assign(reinterpret_cast<const char*>(b + pos), length);
  return true;
}

// The only sample entry: its type, a picture's size and avcC, a sound's ES
// descriptor. False for what the path does not account for: several
// entries, a colour table, any child that adds to the codec's setup.
bool ReadMovieSampleEntry(ByteReader* reader, const Box& stsd, Mp4MovieTrack* track) {
  uint8_t b[80];
  Box entry;
  if (!ReadAt(reader, stsd.content, b, 8) || b[0] != 0 || Be32(b + 4) != 1) return false;
  if (!NextBox(reader, stsd.content + 8, stsd.end, &entry) || entry.cut) return false;
  track->format = entry.type;
  // The only formats the video path accounts for; the rest is not read.
  bool video = track->handler == kVide;
  if (video ? !OneOf(entry.type, {kAvc1, kAvc3, kMp4v}) : entry.type != kMp4a) return false;
  Box children = entry;
  if (track->handler == kVide) {
    if (entry.end - entry.content < 78 || !ReadAt(reader, entry.content, b, 78)) return false;
    track->width = Be16(b + 24);
    track->height = Be16(b + 26);
    int depth = Be16(b + 74);
    bool palette = Be16(b + 76) == 0 && (depth == 1 || depth == 2 || depth == 4 || depth == 8 || depth > 32);
    if (palette) return false;
    children.content += 78;
    // The codec's setup: an avcC box for H.264, an ES descriptor for MPEG-4.
    uint32_t setup = entry.type == kMp4v ? kEsds : kAvcC;
    int setups = 0;
    bool known = EachChild(reader, children, [&](const Box& child) {
      if (child.type == setup && setup == kEsds) return ++setups == 1 && ReadEsdsConfig(reader, child, track);
      if (child.type == setup) {
        int64_t size = child.end - child.content;
        if (++setups > 1 || size > static_cast<int64_t>(kMp4ConfigLimit)) return false;
        track->config.resize(static_cast<size_t>(size));
        return ReadAt(reader, child.content, track->config.data(), track->config.size());
      }
      return OneOf(child.type, {kPasp, kColr, kBtrt, kClap, kFiel, kGama, kFree});
    });
    return known && setups == 1;
  }
  if (entry.end - entry.content < 28 || !ReadAt(reader, entry.content, b, 28)) return false;
  uint16_t version = Be16(b + 8);
  if (version > 2) return false;
  children.content += 28 + (version == 1 ? 16 : version == 2 ? 36 : 0);
  if (children.content > children.end) return false;
  int esds = 0;
  auto take = [&](const Box& child) {
    if (child.type == kEsds) return ++esds == 1 && ReadEsdsConfig(reader, child, track);
    // A channel layout box leaves the decoder's own layout as it is.
    return OneOf(child.type, {kBtrt, kChan, kFree});
  };
  bool known = EachChild(reader, children, [&](const Box& child) {
    if (child.type != kWave) return take(child);
    return EachChild(reader, child, [&](const Box& inner) {
      return inner.type == 0 || OneOf(inner.type, {kFrma, kMp4a, kEnda}) || take(inner);
    });
  });
  return known && esds == 1;
}

// Reads `count` big-endian 32-bit words of a table at `at` in slices,
// calling `each` on every word; false when the table is cut short.
template <typename Each>
bool EachWord(ByteReader* reader, int64_t at, uint64_t count, Each each) {
  uint8_t b[4096];
  for (uint64_t done = 0; done < count;) {
    size_t slice = count - done < sizeof b / 4 ? static_cast<size_t>(count - done) : sizeof b / 4;
    if (!ReadAt(reader, at, b, slice * 4)) return false;
    for (size_t i = 0; i < slice; ++i) each(Be32(b + 4 * i));
    done += slice;
    at += static_cast<int64_t>(slice * 4);
  }
  return true;
}

// The sample tables: durations, sizes, the chunk layout and the first
// sample's place. False when a table is missing, damaged or inconsistent
// with the others, or longer than the walk sums.
bool ReadMovieSampleTables(ByteReader* reader, const Box& stbl, Mp4MovieTrack* track) {
  Box stsd{}, stts{}, stsc{}, stsz{}, stco{}, ctts{};
  int offsets = 0;
  bool known = EachChild(reader, stbl, [&](const Box& child) {
    if (child.type == kStsd) stsd = child;
    else if (child.type == kStts) stts = child;
    else if (child.type == kStsc) stsc = child;
    else if (child.type == kStsz) stsz = child;
    else if (child.type == kStco || child.type == kCo64) stco = child, ++offsets;
    else if (child.type == kCtts) ctts = child;
    else return OneOf(child.type, {kStss, kStps, kSdtp, kSgpd, kSbgp, kCslg, kFree, kSkip});
    return true;
  });
  if (!known || offsets != 1 || stsd.type == 0 || stts.type == 0 || stsc.type == 0 || stsz.type == 0) return false;
  if (!ReadMovieSampleEntry(reader, stsd, track)) return false;

  // Negative composition offsets make the demuxer move every decoding time
  // earlier by the largest of them.
  uint8_t b[12];
  uint64_t shift = 0;
  if (ctts.type != 0) {
    if (!ReadAt(reader, ctts.content, b, 8)) return false;
    uint32_t runs = Be32(b + 4);
    if (runs > kMaxSummedSamples || static_cast<uint64_t>(ctts.end - ctts.content - 8) / 8 < runs) return false;
    bool offset_word = false;
    if (!EachWord(reader, ctts.content + 8, uint64_t{runs} * 2, [&](uint32_t word) {
          int64_t offset = static_cast<int32_t>(word);
          if (offset_word && offset < 0 && static_cast<uint64_t>(-offset) > shift) shift = static_cast<uint64_t>(-offset);
          offset_word = !offset_word;
        })) {
      return false;
    }
  }

  // Time to sample: the total, and how many samples start before the
  // media's first 3 s after the edit's start are over.
  if (!ReadAt(reader, stts.content, b, 8)) return false;
  uint32_t runs = Be32(b + 4);
  if (runs == 0 || runs > kMaxSummedSamples || static_cast<uint64_t>(stts.end - stts.content - 8) / 8 < runs)
    return false;
  uint64_t early_limit = static_cast<uint64_t>(track->media_time) + shift + 3ull * track->time_scale;
  uint64_t early_samples = 0, time = 0;
  bool huge_delta = false, unit_delta = false;
  uint32_t count = 0;
  bool first_word = true;
  if (!EachWord(reader, stts.content + 8, uint64_t{runs} * 2, [&](uint32_t word) {
        if (first_word) {
          count = word;
        } else {
          if (word >= 0x80000000u) huge_delta = true;
          unit_delta = runs == 1 && word == 1;
          if (time < early_limit) {
            uint64_t left = word == 0 ? count : (early_limit - time + word - 1) / word;
            early_samples += left < count ? left : count;
          }
          time += uint64_t{count} * word;
        }
        first_word = !first_word;
      })) {
    return false;
  }
  // Sound with one-unit durations is read in chunks, not samples.
  if (huge_delta || (unit_delta && track->handler == kSoun)) return false;
  track->table_duration = time;

  // Sizes: one for all (pictures only), or one per sample.
  if (stsz.end - stsz.content < 12 || !ReadAt(reader, stsz.content, b, 12)) return false;
  uint32_t fixed = Be32(b + 4);
  track->sample_count = Be32(b + 8);
  if (track->sample_count == 0 || track->sample_count > kMaxSummedSamples) return false;
  if (fixed != 0) {
    if (track->handler == kSoun || fixed > 0x3FFFFFFF) return false;
    track->sample_bytes = uint64_t{fixed} * track->sample_count;
    track->first_size = fixed;
    track->early_bytes = uint64_t{fixed} * (early_samples < track->sample_count ? early_samples : track->sample_count);
  } else {
    if (static_cast<uint64_t>(stsz.end - stsz.content - 12) / 4 < track->sample_count) return false;
    // A picture track's sizes count only for the bytes read early: its bit
    // rate is stored nowhere.
    uint64_t wanted = track->sample_count;
    if (track->handler == kVide) wanted = early_samples == 0 ? 1 : early_samples < wanted ? early_samples : wanted;
    uint64_t index = 0;
    bool oversized = false;
    if (!EachWord(reader, stsz.content + 12, wanted, [&](uint32_t size) {
          if (size > 0x3FFFFFFF) oversized = true;
          if (index == 0) track->first_size = size;
          if (index < early_samples) track->early_bytes += size;
          track->sample_bytes += size;
          ++index;
        }) ||
        oversized) {
      return false;
    }
  }

  // Chunks: the sample-to-chunk runs must place exactly the samples sized.
  uint8_t o[8];
  if (!ReadAt(reader, stco.content, o, 8)) return false;
  uint32_t chunks = Be32(o + 4);
  bool wide = stco.type == kCo64;
  if (chunks == 0 || static_cast<uint64_t>(stco.end - stco.content - 8) / (wide ? 8 : 4) < chunks) return false;
  if (!ReadAt(reader, stco.content + 8, o, wide ? 8 : 4)) return false;
  track->first_offset = wide ? Be64(o) : Be32(o);
  if (!ReadAt(reader, stsc.content, b, 8)) return false;
  uint32_t entries = Be32(b + 4);
  if (entries == 0 || entries > kMaxSummedSamples || static_cast<uint64_t>(stsc.end - stsc.content - 8) / 12 < entries)
    return false;
  uint64_t placed = 0;
  uint32_t previous_first = 0, previous_count = 0;
  bool consistent = true;
  int field = 0;
  uint32_t first = 0, per_chunk = 0;
  if (!EachWord(reader, stsc.content + 8, uint64_t{entries} * 3, [&](uint32_t word) {
        if (field == 0) first = word;
        if (field == 1) per_chunk = word;
        if (field == 2) {
          if (word != 1 || per_chunk == 0 || first <= previous_first || (previous_first == 0 && first != 1))
            consistent = false;
          if (previous_first != 0) placed += uint64_t{first - previous_first} * previous_count;
          previous_first = first;
          previous_count = per_chunk;
        }
        field = (field + 1) % 3;
      })) {
    return false;
  }
  if (!consistent || previous_first > chunks) return false;
  placed += uint64_t{chunks - previous_first + 1} * previous_count;
  return placed == track->sample_count;
}

void ReadMovieTrack(ByteReader* reader, const Box& trak, Mp4Movie* movie) {
  Mp4MovieTrack& track = movie->tracks[movie->track_count++];
  Box mdia{}, edts{};
  bool known = EachChild(reader, trak, [&](const Box& child) {
    if (child.type == kMdia) mdia = child;
    else if (child.type == kEdts) edts = child;
    else if (child.type == kUdta) movie->tagged |= UdtaHasRecordTags(reader, child);
    else if (child.type == kMeta) movie->tagged |= MetaHasRecordTags(reader, child);
    else return OneOf(child.type, {kTkhd, kTapt, kFree, kSkip});
    return true;
  });
  if (!known || mdia.type == 0 || (edts.type != 0 && !ReadEdits(reader, edts, &track))) return;
  Box mdhd{}, minf{};
  uint8_t b[12];
  known = EachChild(reader, mdia, [&](const Box& child) {
    if (child.type == kMdhd) {
      Mp4Track header;
      if (minf.type != 0 || !ReadMediaHeader(reader, child, &header)) return false;
      track.time_scale = header.time_scale;
      track.duration = header.duration;
      mdhd = child;
    } else if (child.type == kHdlr) {
      if (child.end - child.content < 12 || !ReadAt(reader, child.content, b, 12)) return false;
      track.handler = Be32(b + 8);
    } else if (child.type == kMinf) {
      minf = child;
    } else {
      return OneOf(child.type, {kElng, kFree, kSkip});
    }
    return true;
  });
  // The media header comes before the sample tables: the probe bounds its
  // duration by the time-to-sample table only in that order.
  if (!known || mdhd.type == 0 || minf.type == 0) return;
  if (track.handler != kVide && track.handler != kSoun) return;
  if (track.time_scale == 0 || track.time_scale > INT32_MAX || track.duration == 0 || track.duration >= (1ull << 62))
    return;
  Box stbl{};
  known = EachChild(reader, minf, [&](const Box& child) {
    if (child.type == kStbl) stbl = child;
    else if (child.type == kDinf) return SelfContained(reader, child);
    else return OneOf(child.type, {kVmhd, kSmhd, kHdlr, kFree, kSkip});
    return true;
  });
  if (!known || stbl.type == 0) return;
  track.plain = ReadMovieSampleTables(reader, stbl, &track);
}

// The Smooth Streaming manifest box, whose bit rates the probe takes over.
bool IsStreamingManifest(ByteReader* reader, const Box& uuid) {
  static const uint8_t kManifest[16] = {0xa5, 0xd4, 0x0b, 0x30, 0xe8, 0x14, 0x11, 0xdd,
                                        0xba, 0x2f, 0x08, 0x00, 0x20, 0x0c, 0x9a, 0x66};
  uint8_t b[16];
  return uuid.end - uuid.content < 16 || !ReadAt(reader, uuid.content, b, 16) || memcmp(b, kManifest, 16) == 0;
}

bool ReadMovieBox(ByteReader* reader, const Box& moov, Mp4Movie* movie) {
  bool header = false, plain = true;
  bool known = EachChild(reader, moov, [&](const Box& child) {
    if (child.type == kMvhd) {
      Mp4Track times;
      header = ReadMediaHeader(reader, child, &times);
      movie->time_scale = times.time_scale;
      movie->duration = times.duration;
    } else if (child.type == kTrak) {
      if (movie->track_count == kMp4MovieMaxTracks) return false;
      ReadMovieTrack(reader, child, movie);
      // The rest of a movie that is not plain is not read.
      plain = plain && movie->tracks[movie->track_count - 1].plain;
      return plain;
    } else if (child.type == kUdta) {
      if (!ReadMovieTags(reader, child, &movie->tags)) movie->tagged = true;
    } else if (child.type == kMeta) {
      movie->tagged |= MetaHasRecordTags(reader, child);
    } else {
      return OneOf(child.type, {kIods, kFree, kSkip});
    }
    return true;
  });
  return known && plain && header && movie->track_count > 0 && movie->time_scale > 0 &&
         movie->time_scale <= INT32_MAX && movie->duration > 0 && movie->duration < (1ull << 62);
}

}  // namespace

Mp4Result ReadMp4(ByteReader* reader, Mp4Info* info) {
  *info = Mp4Info{};
  Box box;
  bool found = false;
  int64_t at = 0;
  for (int i = 0; i < kMaxTopLevelBoxes && NextBox(reader, at, reader->length, &box); ++i, at = box.end) {
    if (box.type == kMoov) {
      found = true;
      break;
    }
  }
  if (!found) return Mp4Result::kNotMp4;
  const Box moov = box;
  bool tagged = false;
  at = moov.content;
  for (int i = 0; i < kMaxChildren && NextBox(reader, at, moov.end, &box); ++i, at = box.end) {
    if (box.type == kTrak) ReadTrack(reader, box, info);
    if (box.type == kUdta && !tagged) {
      ReadTags(reader, box, &info->tags);
      tagged = true;
    }
  }
  return info->tracks == 0 ? Mp4Result::kNoTracks : Mp4Result::kOk;
}

Mp4Result ReadMp4File(const char* path, Mp4Info* info) {
  *info = Mp4Info{};
  std::unique_ptr<FILE, int (*)(FILE*)> file(fopen(path, "rbe"), &fclose);
  if (!file) return Mp4Result::kNotMp4;
  // The reader reads by position into its own buffer: no stdio buffer.
  setvbuf(file.get(), nullptr, _IONBF, 0);
  AdviseFewReads(fileno(file.get()));  // box headers, then the movie box wherever it lies
  int64_t length = lseek(fileno(file.get()), 0, SEEK_END);
  if (length < 0) return Mp4Result::kNotMp4;
  ByteReader reader;  // the buffer needs no zeroing: nothing is cached yet
  ByteReaderAttachFile(&reader, file.get(), length);
  return ReadMp4(&reader, info);
}

Mp4Result ReadMp4Memory(const void* data, size_t size, Mp4Info* info) {
  ByteReader reader;
  ByteReaderAttachMemory(&reader, data, size);
  return ReadMp4(&reader, info);
}

int32_t Mp4TrackSeconds(const Mp4Track& track) {
  if (track.duration_unknown || track.time_scale == 0) return 0;
  return static_cast<int32_t>(track.duration / track.time_scale);
}

uint32_t Mp4TrackBitRate(const Mp4Track& track) {
  if (track.has_esds) return track.esds_avg_bitrate;
  if (track.duration_unknown || track.time_scale == 0) return 0;
  uint64_t seconds = track.duration / track.time_scale;
  if (seconds >= UINT64_MAX / 1000) return 0;
  uint64_t ms = seconds * 1000 + track.duration % track.time_scale * 1000 / track.time_scale;
  if (ms == 0) return 0;
  return static_cast<uint32_t>(track.sample_bytes * 8000 / ms);
}

Mp4Result ReadMp4Movie(ByteReader* reader, Mp4Movie* movie) {
  *movie = Mp4Movie{};
  movie->file_size = reader->length;
  Box box;
  int64_t at = 0;
  bool found = false, plain = true, first = true;
  int i = 0;
  for (; i < kMaxTopLevelBoxes && at < reader->length; ++i, at = box.end, first = false) {
    if (!NextBox(reader, at, reader->length, &box) || box.cut) {
      plain = false;
      break;
    }
    // What makes the format probe pick the QuickTime reader with certainty.
    if (first && !OneOf(box.type, {kFtyp, kMoov, kMdat, kFree, kSkip, kWide})) plain = false;
    if (box.type == kMoov && !found) {
      found = true;
      plain = ReadMovieBox(reader, box, movie) && plain;
    } else if (box.type == kFtyp) {
      uint8_t brand[4];
      // A still picture's tracks are not read as a movie at all.
      if (!ReadAt(reader, box.content, brand, 4) || Be32(brand) == kAvif) plain = false;
    } else if (box.type == kUuid) {
      if (IsStreamingManifest(reader, box)) plain = false;
    } else if (!OneOf(box.type, {kMoov, kMdat, kFree, kSkip, kWide})) {
      plain = false;  // fragments, top-level tags, anything else
    }
  }
  if (i == kMaxTopLevelBoxes) plain = false;
  if (!found) return Mp4Result::kNotMp4;
  movie->plain = plain;
  return movie->track_count == 0 ? Mp4Result::kNoTracks : Mp4Result::kOk;
}

Mp4Result ReadMp4MovieMemory(const void* data, size_t size, Mp4Movie* movie) {
  ByteReader reader;
  ByteReaderAttachMemory(&reader, data, size);
  return ReadMp4Movie(&reader, movie);
}
