#include "meta/mp4_reader.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
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
  box->end = size > static_cast<uint64_t>(parent_end - at) ? parent_end : at + static_cast<int64_t>(size);
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

// The length field of an MPEG-4 descriptor: up to four 7-bit groups.
bool DescriptorLength(const uint8_t* b, size_t n, size_t* pos) {
  for (int i = 0; i < 4; ++i) {
    if (*pos >= n) return false;
    if ((b[(*pos)++] & 0x80) == 0) return true;
  }
  return true;
}

// The average bit rate of an 'esds' box's DecoderConfigDescriptor, inside
// its ES_Descriptor. False when the descriptors are not there.
bool ReadEsdsBitRate(ByteReader* reader, const Box& esds, uint32_t* avg_bitrate) {
  uint8_t b[320];  // version/flags, ES_Descriptor with the longest URL, DecoderConfigDescriptor
  int64_t available = esds.end - esds.content;
  size_t n = available < static_cast<int64_t>(sizeof b) ? static_cast<size_t>(available) : sizeof b;
  if (!ReadAt(reader, esds.content, b, n)) return false;
  size_t pos = 4;
  if (pos >= n || b[pos++] != 0x03 || !DescriptorLength(b, n, &pos)) return false;
  pos += 2;  // ES_ID
  if (pos >= n) return false;
  uint8_t flags = b[pos++];
  if (flags & 0x80) pos += 2;                       // dependsOn_ES_ID
  if (flags & 0x40) pos += pos < n ? 1 + b[pos] : 1;  // URL
  if (flags & 0x20) pos += 2;                       // OCR_ES_Id
  if (pos >= n || b[pos++] != 0x04 || !DescriptorLength(b, n, &pos)) return false;
  // objectTypeIndication, streamType, bufferSizeDB (3), maxBitrate (4), avgBitrate (4)
  if (n < 13 || pos > n - 13) return false;
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
