// MP3 metadata: the ID3v1 and ID3v2 tag readers, the ID3 genre table, the
// text helpers of the merge, and the driver that reads a whole MP3 (tags,
// first frame, VBR header) into a media record.
#pragma once

#include <cstddef>
#include <cstdint>

#include "meta/byte_reader.h"
#include "meta/mpeg_audio.h"
#include "platform/media_info.h"

// Text frames of an ID3v2 tag. Fields hold the frame's bytes as found, or raw
// UTF-16 with its byte-order mark when the field's flag is 1.
struct Id3v2Info {
  char title[1024];
  char artist[1024];
  char album[1024];
  char year[8];
  char genre[128];
  char track[8];  // cut at the first '/'
  int32_t title_utf16;
  int32_t artist_utf16;
  int32_t album_utf16;
  int32_t year_utf16;
  int32_t genre_utf16;
};
static_assert(sizeof(Id3v2Info) == 3236);

// The 125 bytes after "TAG" in the last 128 bytes of the file, kept raw. A
// full field is not NUL-terminated: read it by its width. In ID3v1.1
// comment[28] is 0 and comment[29] is the track number.
struct Id3v1Tag {
  char title[30];
  char artist[30];
  char album[30];
  char year[4];
  char comment[30];
  unsigned char genre;
};
static_assert(sizeof(Id3v1Tag) == 125);

inline constexpr int kId3GenreCount = 148;
// The ID3 genre names, indexed 0 to 147 (spellings as the tags have them).
extern const char* const kId3Genres[kId3GenreCount];

// Reads the ID3v1 tag at the end of the reader's source. Returns 1 and lowers
// reader->length by 128 when a tag was read (blank fields emptied), 0 when
// there is none, -1 when it could not be read.
int ReadId3v1(ByteReader* reader, Id3v1Tag* tag);

// The total length of the ID3v2 tag at offset 0 (header included) and its
// major version; 0 when the source does not start with "ID3".
int64_t ProbeId3v2(ByteReader* reader, int* major_version);

// Reads the text frames of an ID3v2.3 / 2.4 tag (major version 3 or higher).
void ReadId3v2Frames(Id3v2Info* info, ByteReader* reader, int major_version);

// Reads the text frames of an ID3v2.2 tag.
void ReadId3v22Frames(Id3v2Info* info, ByteReader* reader);

// Copies UTF-16 text that begins with its byte-order mark into `dst` (size
// bytes, zeroed first), up to the first 0x0000 pair and leaving at least two
// zero bytes. Without a byte-order mark `dst` stays empty.
void CopyUtf16(const char* src, char* dst, size_t size);

// Removes leading and trailing blanks (0x20 only) in place.
void TrimSpaces(char* text);

// Copies the tag and frame results into `rec` (ID3v2 over ID3v1 over the
// defaults already in `rec`). Nothing happens when an argument is null.
void MergeMp3Info(MediaInfo* rec, const MpegInfo* mpeg, const Id3v1Tag* v1, const Id3v2Info* v2);

// Reads the MP3 file at `path` into `rec`, over the defaults already there.
// 0 on success, -1 when the file cannot be opened or holds no valid MPEG
// audio frame.
int ReadMp3Info(const char* path, MediaInfo* rec);

// The same over a reader already attached to a source; `name` is used in
// messages. The reader's file, if any, stays open.
int ReadMp3InfoFromReader(ByteReader* reader, const char* name, MediaInfo* rec);

// The same over `size` bytes of memory.
int ReadMp3InfoFromMemory(const void* data, size_t size, MediaInfo* rec);
