// MP3 metadata: ID3v1 and ID3v2 tags, the forward frame search, and the
// driver that merges tags and the first frame into the media record.
#include "meta/metaid3.h"

#include <strings.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/log.h"
#include "platform/read_advice.h"
#include "platform/text_encoding.h"

const char* const kId3Genres[kId3GenreCount] = {
    "Blues", "Classic Rock", "Country", "Dance", "Disco", "Funk", "Grunge", "Hip-Hop", "Jazz",
    "Metal", "New Age", "Oldies", "Other", "Pop", "R&B", "Rap", "Reggae", "Rock", "Techno",
    "Industrial", "Alternative", "Ska", "Death Metal", "Pranks", "Soundtrack", "Euro-Techno",
    "Ambient", "Trip-Hop", "Vocal", "Jazz+Funk", "Fusion", "Trance", "Classical", "Instrumental",
    "Acid", "House", "Game", "Sound Clip", "Gospel", "Noise", "AlternRock", "Bass", "Soul", "Punk",
    "Space", "Meditative", "Instrumental Pop", "Instrumental Rock", "Ethnic", "Gothic", "Darkwave",
    "Techno-Industrial", "Electronic", "Pop-Folk", "Eurodance", "Dream", "Southern Rock", "Comedy",
    "Cult", "Gangsta", "Top 40", "Christian Rap", "Pop/Funk", "Jungle", "Native American",
    "Cabaret", "New Wave", "Psychadelic", "Rave", "Showtunes", "Trailer", "Lo-Fi", "Tribal",
    "Acid Punk", "Acid Jazz", "Polka", "Retro", "Musical", "Rock & Roll", "Hard Rock", "Folk",
    "Folk/Rock", "National Folk", "Swing", "Fast-Fusion", "Bebob", "Latin", "Revival", "Celtic",
    "Bluegrass", "Avantgarde", "Gothic Rock", "Progressive Rock", "Psychedelic Rock",
    "Symphonic Rock", "Slow Rock", "Big Band", "Chorus", "Easy Listening", "Acoustic", "Humour",
    "Speech", "Chanson", "Opera", "Chamber Music", "Sonata", "Symphony", "Booty Bass", "Primus",
    "Porn Groove", "Satire", "Slow Jam", "Club", "Tango", "Samba", "Folklore", "Ballad",
    "Power Ballad", "Rhythmic Soul", "Freestyle", "Duet", "Punk Rock", "Drum Solo", "A capella",
    "Euro-House", "Dance Hall", "Goa", "Drum & Bass", "Club House", "Hardcore", "Terror", "Indie",
    "BritPop", "NegerPunk", "Polsk Punk", "Beat", "Christian Gangsta", "Heavy Metal",
    "Black Metal", "Crossover", "Contemporary C", "Christian Rock", "Merengue", "Salsa",
    "Thrash Metal", "Anime", "JPop", "SynthPop",
};

namespace {

constexpr int kTextSize = 1024;
// A text frame larger than this ends the tag walk: long comments and lyrics
// are not worth reading, and nothing after them is read either.
constexpr int64_t kMaxTextFrame = 1023;
constexpr double kMaxDuration = 43200.0;

// snprintf(dst, size, "%s", src) without its truncation warnings: truncating
// to the field's width is what every copy here wants.
void CopyText(char* dst, size_t size, const char* src) {
  if (size == 0) return;
  size_t n = strnlen(src, size - 1);
  memcpy(dst, src, n);
  dst[n] = '\0';
}

bool IsByteOrderMark(unsigned char a, unsigned char b) {
  return (a == 0xFF && b == 0xFE) || (a == 0xFE && b == 0xFF);
}

// The text of one frame: the bytes after the encoding byte at `encoding_at`,
// frame bytes 1 to size-1. A byte-order mark of encoding 1 is kept with the
// text; encoding 2 (big-endian UTF-16 without one) gets FE FF put in front.
struct FrameText {
  char bytes[kTextSize + 2];  // two spare zero bytes keep every read terminated
  bool utf16;
};

void ReadFrameText(ByteReader* reader, int64_t encoding_at, int64_t size, bool allow_encoding2,
                   FrameText* text) {
  memset(text, 0, sizeof *text);
  int encoding = ReadByte(reader, encoding_at);
  int w = 0;
  if (encoding == 1) {
    text->utf16 = IsByteOrderMark(ReadByte(reader, encoding_at + 1), ReadByte(reader, encoding_at + 2));
  } else if (encoding == 2 && allow_encoding2) {
    text->bytes[0] = static_cast<char>(0xFE);
    text->bytes[1] = static_cast<char>(0xFF);
    text->utf16 = true;
    w = 2;
  }
  // Deliberate: the write position stops at the last byte, which later bytes
  // overwrite; frames are at most 1023 bytes, so at most one byte is lost.
  for (int64_t i = 1; i < size; ++i) {
    text->bytes[w] = static_cast<char>(ReadByte(reader, encoding_at + i));
    if (w < kTextSize - 1) ++w;
  }
}

void StoreText(const FrameText& text, char* field, size_t size, int32_t* utf16_flag) {
  if (text.utf16) {
    CopyUtf16(text.bytes, field, size);
    *utf16_flag = 1;
  } else {
    orvo::CopyTextField(field, size, text.bytes);
  }
}

void StoreTrack(const FrameText& text, Id3v2Info* info) {
  CopyText(info->track, sizeof info->track, text.bytes);
  if (char* slash = strchr(info->track, '/')) *slash = '\0';
}

// A text frame into its field, by its ID3v2.3/2.4 id or its ID3v2.2 id.
void StoreFrame(Id3v2Info* info, const char* id, bool v22, const FrameText& text) {
  struct Target {
    const char* id23;
    const char* id22;
    char* field;
    size_t size;
    int32_t* utf16;
  };
  const Target targets[] = {
      {"TALB", "TAL", info->album, sizeof info->album, &info->album_utf16},
      {"TCON", "TCO", info->genre, sizeof info->genre, &info->genre_utf16},
      {"TYER", "TYE", info->year, sizeof info->year, &info->year_utf16},
      {"TPE1", "TP1", info->artist, sizeof info->artist, &info->artist_utf16},
      {"TIT2", "TT2", info->title, sizeof info->title, &info->title_utf16},
  };
  const size_t length = v22 ? 3 : 4;
  for (const Target& t : targets) {
    if (strncasecmp(id, v22 ? t.id22 : t.id23, length) == 0) {
      StoreText(text, t.field, t.size, t.utf16);
      return;
    }
  }
  if (strncasecmp(id, v22 ? "TRK" : "TRCK", length) == 0) StoreTrack(text, info);
}

// Blank ID3v1 fields become empty; fields with content keep their blanks.
void EmptyBlankField(char* field, int width) {
  for (int i = 0; i < width; ++i) {
    if (field[i] == ' ') continue;
    if (field[i] == '\0') field[0] = '\0';
    return;
  }
  field[0] = '\0';
}

// Copies an ID3v1 field of `width` bytes and trims it.
void CopyId3v1Field(char* dst, const char* src, size_t width) {
  strncpy(dst, src, width);
  TrimSpaces(dst);
}

void MergeText(char* dst, size_t size, int32_t* dst_flag, const char* v2_text, int32_t v2_utf16) {
  if (v2_utf16)
    CopyUtf16(v2_text, dst, size);
  else
    orvo::CopyTextField(dst, size, v2_text);
  *dst_flag = v2_utf16;
}

void MergeGenre(MediaInfo* rec, const Id3v1Tag* v1, const Id3v2Info* v2) {
  if (v2->genre[0] != '\0') {
    char genre[sizeof v2->genre + 1];
    memcpy(genre, v2->genre, sizeof v2->genre);
    genre[sizeof v2->genre] = '\0';
    char* open = strchr(genre, '(');
    char* close = strrchr(genre, ')');
    if (open != nullptr && close != nullptr && close > open) {
      // "(17)" and "(17)Rock" are genre numbers; "(RX)" is no genre at all.
      *close = '\0';
      char* end = nullptr;
      long number = strtol(open + 1, &end, 10);
      if (end != open + 1 && *end == '\0') {
        if (number >= 0 && number < kId3GenreCount)
          CopyText(rec->genre, sizeof rec->genre, kId3Genres[number]);
        else
          snprintf(rec->genre, sizeof rec->genre, "%ld", number);
      }
    } else {
      MergeText(rec->genre, sizeof rec->genre, &rec->genre_is_utf16, v2->genre, v2->genre_utf16);
    }
  } else if (v1->genre >= 1 && v1->genre < kId3GenreCount) {
    // Deliberate: entry 0 ("Blues") is never taken from an ID3v1 tag, where 0
    // mostly means the field was never set.
    CopyText(rec->genre, sizeof rec->genre, kId3Genres[v1->genre]);
  }
}

// Finds the first frame header that the next frame (after any zero padding)
// confirms. Returns 1 with *mpeg filled, 0 when there is none.
int FindConfirmedFrame(ByteReader* reader, int64_t from, MpegInfo* mpeg) {
  ZeroRuns runs;
  std::unique_ptr<ByteReader> ahead;
  int64_t offset = from;
  while (offset < reader->length - 10) {
    if (FindMpegHeader(reader, &offset, mpeg) == 0) {
      ++offset;
      continue;
    }
    int64_t found = offset;
    // Deliberate: the zero bytes are counted from one byte past the frame's
    // end, frame_end + 1 up to the length itself; confirmed offsets depend on it.
    int64_t frame_end = found + mpeg->frame_length;
    int64_t k = CountZeroBytes(reader, frame_end + 1, reader->length + 1, &runs);
    if (CheckMpegHeaderAhead(reader, &ahead, mpeg->header_offset + mpeg->frame_length + k) == 0) return 1;
    offset = found + 1;
  }
  return 0;
}

using FileHandle = std::unique_ptr<FILE, decltype(&fclose)>;

}  // namespace

void CopyUtf16(const char* src, char* dst, size_t size) {
  memset(dst, 0, size);
  if (size < 4) return;
  if (!IsByteOrderMark(static_cast<unsigned char>(src[0]), static_cast<unsigned char>(src[1]))) return;
  // Stop two bytes short so the text always ends in a 0x0000 pair.
  for (size_t i = 0; i + 2 <= size - 2; i += 2) {
    if (src[i] == '\0' && src[i + 1] == '\0') break;
    dst[i] = src[i];
    dst[i + 1] = src[i + 1];
  }
}

void TrimSpaces(char* text) {
  size_t lead = 0;
  while (text[lead] == ' ') ++lead;
  if (lead > 0) memmove(text, text + lead, strlen(text + lead) + 1);
  size_t n = strlen(text);
  while (n > 0 && text[n - 1] == ' ') text[--n] = '\0';
}

int ReadId3v1(ByteReader* reader, Id3v1Tag* tag) {
  int64_t at = reader->length - 128;
  if (ReadByte(reader, at) != 'T' || ReadByte(reader, at + 1) != 'A' || ReadByte(reader, at + 2) != 'G')
    return 0;
  int64_t got = ReadBytes(reader, at + 3, tag, sizeof *tag);
  if (got < 0) {
    ORVO_LOG("%s (%d) Failed to seek to (%lld)", static_cast<long long>(at + 3));
    return -1;
  }
  if (got == 0) {
    ORVO_LOG("%s (%d) Failed to read id3v1 data");
    return -1;
  }
  // The frame scan and the duration leave the tag out.
  reader->length -= 128;
  EmptyBlankField(tag->title, sizeof tag->title);
  EmptyBlankField(tag->artist, sizeof tag->artist);
  EmptyBlankField(tag->album, sizeof tag->album);
  EmptyBlankField(tag->year, sizeof tag->year);
  EmptyBlankField(tag->comment, sizeof tag->comment);
  return 1;
}

int64_t ProbeId3v2(ByteReader* reader, int* major_version) {
  if (ReadByte(reader, 0) != 'I' || ReadByte(reader, 1) != 'D' || ReadByte(reader, 2) != '3') return 0;
  *major_version = ReadByte(reader, 3);
  // Flags are not read: extended headers, unsynchronisation and footers are
  // not recognised.
  return ReadSyncsafe32(reader, 6) + 10;
}

void ReadId3v2Frames(Id3v2Info* info, ByteReader* reader, int major_version) {
  if (info == nullptr || reader == nullptr) {
    ORVO_LOG("%s (%d) Bad parameters.");
    return;
  }
  memset(info, 0, sizeof *info);
  int64_t total = ReadSyncsafe32(reader, 6) + 10;
  FrameText text;
  for (int64_t pos = 10; pos < total;) {
    // Padding, garbage or an unreadable byte (17) ends the tag.
    int first = ReadByte(reader, pos);
    if (first < '0' || first > 'Z') break;
    char id[5] = {static_cast<char>(first), static_cast<char>(ReadByte(reader, pos + 1)),
                  static_cast<char>(ReadByte(reader, pos + 2)), static_cast<char>(ReadByte(reader, pos + 3)), '\0'};
    int64_t size = major_version == 3 ? static_cast<int64_t>(ReadPlain32(reader, pos + 4))
                                      : ReadSyncsafe32(reader, pos + 4);
    if (strncasecmp(id, "APIC", 4) != 0) {
      if (size > kMaxTextFrame) break;
      ReadFrameText(reader, pos + 10, size, true, &text);
      if (size >= 2) StoreFrame(info, id, false, text);
    }
    pos += size + 10;
  }
}

void ReadId3v22Frames(Id3v2Info* info, ByteReader* reader) {
  if (info == nullptr || reader == nullptr) {
    ORVO_LOG("%s (%d) Bad parameters.");
    return;
  }
  memset(info, 0, sizeof *info);
  int64_t total = ReadSyncsafe32(reader, 6) + 10;
  FrameText text;
  for (int64_t pos = 10; pos < total;) {
    int first = ReadByte(reader, pos);
    if (first < '0' || first > 'Z') break;
    char id[4] = {static_cast<char>(first), static_cast<char>(ReadByte(reader, pos + 1)),
                  static_cast<char>(ReadByte(reader, pos + 2)), '\0'};
    // Deliberate: the three size bytes are or-ed, not shifted, so a frame of
    // 256 bytes or more gets a wrong size and the large-frame stop is never
    // reached. Stored records of such files depend on it.
    int64_t size = (ReadByte(reader, pos + 3) | ReadByte(reader, pos + 4) | ReadByte(reader, pos + 5)) & 0xFF;
    if (strncasecmp(id, "PIC", 3) != 0) {
      if (size > kMaxTextFrame) break;
      ReadFrameText(reader, pos + 6, size, false, &text);
      if (size >= 2) StoreFrame(info, id, true, text);
    }
    pos += size + 6;
  }
}

int FindMpegHeader(ByteReader* reader, int64_t* offset, MpegInfo* info) {
  if (reader == nullptr || offset == nullptr || info == nullptr) {
    ORVO_LOG("%s (%d) Bad parameter.");
    return 0;
  }
  int64_t limit = reader->length - 10;
  while (*offset < limit) {
    if (ReadByte(reader, *offset) == 0xFF && (ReadByte(reader, *offset + 1) & 0xE0) == 0xE0) break;
    ++*offset;
  }
  if (*offset >= limit) {
    ORVO_LOG("%s (%d) MPEG Header not found");
    return 0;
  }
  return DecodeMpegHeader(reader, *offset, info);
}

void MergeMp3Info(MediaInfo* rec, const MpegInfo* mpeg, const Id3v1Tag* v1, const Id3v2Info* v2) {
  if (rec == nullptr || mpeg == nullptr || v1 == nullptr || v2 == nullptr) {
    ORVO_LOG("%s (%d) Bad parameter.");
    return;
  }
  // Twelve hours is the deliberate upper bound of a believable MP3.
  if (mpeg->duration > 0.0 && mpeg->duration < kMaxDuration) rec->duration = static_cast<float>(mpeg->duration);
  rec->bitrate = mpeg->bitrate_kbps > 0 ? mpeg->bitrate_kbps * 1000 : 0;
  rec->frequency = mpeg->sample_rate;
  // Deliberate: MP3 records carry the channel-mode code (3 = single channel),
  // not a channel count; the media applications read it that way.
  rec->channels = mpeg->channel_mode;

  if (v2->title[0] != '\0') {
    memset(rec->title, 0, sizeof rec->title);
    MergeText(rec->title, sizeof rec->title, &rec->title_is_utf16, v2->title, v2->title_utf16);
  } else if (v1->title[0] != '\0') {
    memset(rec->title, 0, sizeof rec->title);
    CopyId3v1Field(rec->title, v1->title, sizeof v1->title);
  }
  if (v2->artist[0] != '\0')
    MergeText(rec->artist, sizeof rec->artist, &rec->artist_is_utf16, v2->artist, v2->artist_utf16);
  else if (v1->artist[0] != '\0')
    CopyId3v1Field(rec->artist, v1->artist, sizeof v1->artist);
  if (v2->album[0] != '\0')
    MergeText(rec->album, sizeof rec->album, &rec->album_is_utf16, v2->album, v2->album_utf16);
  else if (v1->album[0] != '\0')
    CopyId3v1Field(rec->album, v1->album, sizeof v1->album);
  if (v2->year[0] != '\0')
    MergeText(rec->year, sizeof rec->year, &rec->year_is_utf16, v2->year, v2->year_utf16);
  else if (v1->year[0] != '\0')
    memcpy(rec->year, v1->year, strnlen(v1->year, sizeof v1->year));  // deliberately not trimmed

  MergeGenre(rec, v1, v2);

  if (v2->track[0] != '\0') {
    rec->track = atoi(v2->track);
  } else {
    unsigned char track = static_cast<unsigned char>(v1->comment[29]);
    if (track != 0 && track != ' ' && v1->comment[28] == '\0') rec->track = track;  // ID3v1.1
  }
}

int ReadMp3InfoFromReader(ByteReader* reader, const char* name, MediaInfo* rec) {
  if (reader == nullptr || name == nullptr || rec == nullptr) {
    ORVO_LOG("%s (%d) Bad parameters.");
    return -1;
  }
  Id3v2Info v2 = {};
  Id3v1Tag v1 = {};
  MpegInfo mpeg = {};

  if (ReadId3v1(reader, &v1) == -1) ORVO_LOG("%s (%d) Failed to parse ID3V1.");

  int version = 0;
  int64_t tag_length = ProbeId3v2(reader, &version);
  if (tag_length > 0) {
    if (version > 2)
      ReadId3v2Frames(&v2, reader, version);
    else if (version == 2)
      ReadId3v22Frames(&v2, reader);
  }

  // The search starts after the ID3v2 tag, so a sync inside a picture is never reached.
  if (FindConfirmedFrame(reader, tag_length, &mpeg) == 0) {
    ORVO_LOG("%s (%d) Can't find valid mpeg header: %s", name);
    return -1;
  }
  ReadVbrHeaders(reader, tag_length, &mpeg);  // Xing, else VBRI

  MergeMp3Info(rec, &mpeg, &v1, &v2);
  return 0;
}

// The head an MP3 file's reads are expected to cover: the reader's buffer and
// the VBR header range after an ID3v2 tag of up to 4 KiB.
constexpr off_t kHeadReadAhead = 24576;

int ReadMp3Info(const char* path, MediaInfo* rec) {
  if (path == nullptr || rec == nullptr) {
    ORVO_LOG("%s (%d) Bad parameters.");
    return -1;
  }
  FileHandle file(fopen(path, "rb"), &fclose);
  if (!file) {
    ORVO_LOG("%s (%d) Unable to open %s ", path);
    return -1;
  }
  // The reader's own buffer does the read-ahead and reads by position; the
  // stream's buffer and position are never used, so the length is taken
  // from the descriptor in one call.
  setvbuf(file.get(), nullptr, _IONBF, 0);
  int64_t length = lseek(fileno(file.get()), 0, SEEK_END);
  if (length < 0) {
    ORVO_LOG("%s (%d) Unable to seek to end %s ", path);
    return -1;
  }
  // The reads are the 128-byte tail, the head and, after a tag of a few KiB,
  // the rest of the first frame's VBR header range (20000 bytes after the
  // tag): the head's bytes are asked for before the tail is read, so both go
  // to the disk at once, and nothing else is read around them.
  AdviseFewReads(fileno(file.get()));
  AdviseWillRead(fileno(file.get()), 0, kHeadReadAhead);
  ByteReader reader;  // the buffer needs no zeroing: nothing is cached yet
  ByteReaderAttachFile(&reader, file.get(), length);
  return ReadMp3InfoFromReader(&reader, path, rec);
}

int ReadMp3InfoFromMemory(const void* data, size_t size, MediaInfo* rec) {
  ByteReader reader;
  ByteReaderAttachMemory(&reader, data, size);
  return ReadMp3InfoFromReader(&reader, "(memory)", rec);
}
