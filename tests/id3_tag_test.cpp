// ID3v1 and ID3v2 tag reading and the merge of tag text into the record.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "meta/metaid3.h"
#include "mp3_test_bytes.h"

using namespace mp3test;

namespace {

// Reads the ID3v2 frames of `bytes` the way the driver does.
Id3v2Info ReadV2(const std::string& bytes) {
  ByteReader reader;
  ByteReaderAttachMemory(&reader, bytes.data(), bytes.size());
  Id3v2Info info;
  memset(&info, 0xAB, sizeof info);  // the readers must zero it themselves
  int version = 0;
  int64_t length = ProbeId3v2(&reader, &version);
  EXPECT_GT(length, 0);
  if (version == 2)
    ReadId3v22Frames(&info, &reader);
  else
    ReadId3v2Frames(&info, &reader, version);
  return info;
}

std::string Utf16Le(const std::string& ascii) {
  std::string out = "\xFF\xFE";
  for (char c : ascii) out += std::string{c, '\0'};
  return out;
}

std::string Utf16Be(const std::string& ascii) {
  std::string out = "\xFE\xFF";
  for (char c : ascii) out += std::string{'\0', c};
  return out;
}

MediaInfo Merge(const Id3v2Info& v2, const Id3v1Tag& v1, const char* default_title = "") {
  MediaInfo rec;
  memset(&rec, 0, sizeof rec);
  snprintf(rec.title, sizeof rec.title, "%s", default_title);
  MpegInfo mpeg = {};
  MergeMp3Info(&rec, &mpeg, &v1, &v2);
  return rec;
}

std::string GenreFromV2(const std::string& genre) {
  Id3v2Info v2 = {};
  Id3v1Tag v1 = {};
  snprintf(v2.genre, sizeof v2.genre, "%s", genre.c_str());
  return Merge(v2, v1).genre;
}

std::string GenreFromV1(int byte) {
  Id3v2Info v2 = {};
  Id3v1Tag v1 = {};
  v1.genre = static_cast<unsigned char>(byte);
  return Merge(v2, v1).genre;
}

TEST(Id3v2FrameSize, Version4SizesAreSyncsafeAndVersion3SizesArePlain) {
  // 200 bytes: syncsafe 00 00 01 48, which read as a plain integer is 328.
  std::string title(199, 't');
  std::string frames = Frame24("TIT2", Text(title)) + Frame24("TPE1", Text("Artist"));
  Id3v2Info v4 = ReadV2(Id3v2(4, frames, 400));
  EXPECT_EQ(std::string(v4.title), title);
  EXPECT_STREQ(v4.artist, "Artist");

  std::string as_v3 = Id3v2(3, frames, 400);
  Id3v2Info v3 = ReadV2(as_v3);
  EXPECT_STREQ(v3.artist, "") << "a plain size must not be read as syncsafe";
}

TEST(Id3v2FrameSize, FrameAbove1023BytesEndsTheTag) {
  std::string comment = Frame23("COMM", Text(std::string(1999, 'c')));
  Id3v2Info after = ReadV2(Id3v2(3, comment + Frame23("TIT2", Text("Title"))));
  EXPECT_STREQ(after.title, "");

  Id3v2Info before = ReadV2(Id3v2(3, Frame23("TIT2", Text("Title")) + comment + Frame23("TPE1", Text("A"))));
  EXPECT_STREQ(before.title, "Title");
  EXPECT_STREQ(before.artist, "");

  // Exactly 1023 bytes is still a text frame.
  Id3v2Info edge = ReadV2(Id3v2(3, Frame23("TIT2", Text(std::string(1022, 'x'))) + Frame23("TPE1", Text("A"))));
  EXPECT_EQ(strlen(edge.title), 1022u);
  EXPECT_STREQ(edge.artist, "A");
}

TEST(Id3v2FrameSize, PicturesOfAnySizeAreSkippedNotStopping) {
  std::string picture = std::string(1, '\0') + "image/jpeg" + std::string(5000, '\xFF');
  Id3v2Info info = ReadV2(Id3v2(3, Frame23("APIC", picture) + Frame23("TIT2", Text("After picture"))));
  EXPECT_STREQ(info.title, "After picture");
}

TEST(Id3v2FrameSize, Version22SizeBytesAreOredNotShifted) {
  // Size bytes 00 01 00 read as 1: the next frame starts one byte later.
  std::string frames = std::string("TT2") + std::string{'\0', '\x01', '\0'} + "X" + Frame22("TP1", Text("Artist"));
  Id3v2Info info = ReadV2(Id3v2(2, frames, 300));
  EXPECT_STREQ(info.title, "");
  EXPECT_STREQ(info.artist, "Artist");

  Id3v2Info plain = ReadV2(Id3v2(2, Frame22("TT2", Text("Title")) + Frame22("TAL", Text("Album")) +
                                        Frame22("TYE", Text("1999")) + Frame22("TCO", Text("(17)")) +
                                        Frame22("TRK", Text("3/9"))));
  EXPECT_STREQ(plain.title, "Title");
  EXPECT_STREQ(plain.album, "Album");
  EXPECT_STREQ(plain.year, "1999");
  EXPECT_STREQ(plain.genre, "(17)");
  EXPECT_STREQ(plain.track, "3");
}

TEST(Id3v2Walk, PaddingGarbageOrTheEndOfTheFileStopsIt) {
  Id3v2Info padded = ReadV2(Id3v2(3, Frame23("TIT2", Text("T")), 100) + Cbr128(2));
  EXPECT_STREQ(padded.title, "T");

  // A tag that claims more bytes than the file holds ends at the unreadable bytes.
  std::string truncated = Id3v2(3, Frame23("TIT2", Text("Cut")) + Frame23("TPE1", Text("Gone")));
  truncated.resize(truncated.size() - 8);
  Id3v2Info cut = ReadV2(truncated);
  EXPECT_STREQ(cut.title, "Cut");

  // A lower-case frame id is not a frame.
  Id3v2Info lower = ReadV2(Id3v2(3, Frame23("tit2", Text("x")) + Frame23("TPE1", Text("y"))));
  EXPECT_STREQ(lower.title, "");
  EXPECT_STREQ(lower.artist, "");
}

TEST(Id3v2Walk, LaterFrameWinsAndTrackIsCutAtSlash) {
  Id3v2Info info = ReadV2(Id3v2(3, Frame23("TIT2", Text("First")) + Frame23("TIT2", Text("Second")) +
                                       Frame23("TRCK", Text("07/12"))));
  EXPECT_STREQ(info.title, "Second");
  EXPECT_STREQ(info.track, "07");
  EXPECT_EQ(Merge(info, Id3v1Tag{}).track, 7);
}

TEST(Id3v2Text, Utf16KeepsItsByteOrderMarkAndSetsTheFlag) {
  std::string le = Utf16Le("Hi");
  Id3v2Info a = ReadV2(Id3v2(3, Frame23("TIT2", std::string(1, '\x01') + le)));
  EXPECT_EQ(std::string(a.title, 6), le);
  EXPECT_EQ(a.title_utf16, 1);

  std::string be = Utf16Be("Hi");
  Id3v2Info b = ReadV2(Id3v2(3, Frame23("TPE1", std::string(1, '\x01') + be)));
  EXPECT_EQ(std::string(b.artist, 6), be);
  EXPECT_EQ(b.artist_utf16, 1);

  // Encoding 2 has no byte-order mark of its own: FE FF is put in front.
  Id3v2Info c = ReadV2(Id3v2(4, Frame24("TALB", std::string(1, '\x02') + be.substr(2))));
  EXPECT_EQ(std::string(c.album, 6), be);
  EXPECT_EQ(c.album_utf16, 1);

  // Encoding 1 without a byte-order mark is copied as bytes.
  Id3v2Info d = ReadV2(Id3v2(3, Frame23("TIT2", std::string(1, '\x01') + "plain")));
  EXPECT_STREQ(d.title, "plain");
  EXPECT_EQ(d.title_utf16, 0);

  // The 2.2 reader knows no encoding 2.
  Id3v2Info e = ReadV2(Id3v2(2, Frame22("TT2", std::string(1, '\x02') + "ab")));
  EXPECT_STREQ(e.title, "ab");
  EXPECT_EQ(e.title_utf16, 0);
}

TEST(Id3v2Text, Utf16ReachesTheRecordWithItsFlags) {
  std::string title = Utf16Le("Song");
  std::string genre = Utf16Be("Trip Hop");
  std::string bytes = Id3v2(3, Frame23("TIT2", std::string(1, '\x01') + title + std::string(2, '\0')) +
                                   Frame23("TCON", std::string(1, '\x01') + genre)) +
                      Cbr128(3);
  MediaInfo rec;
  ASSERT_EQ(ReadRecord(bytes, &rec), 0);
  EXPECT_EQ(std::string(rec.title, title.size() + 2), title + std::string(2, '\0'));
  EXPECT_EQ(rec.title_is_utf16, 1);
  EXPECT_EQ(std::string(rec.genre, genre.size()), genre);
  EXPECT_EQ(rec.genre_is_utf16, 1);
  EXPECT_EQ(rec.artist_is_utf16, 0);
}

TEST(CopyUtf16, NeedsAByteOrderMarkAndStopsAtAZeroPair) {
  char dst[16];
  CopyUtf16("abcd", dst, sizeof dst);
  EXPECT_EQ(std::string(dst, sizeof dst), std::string(16, '\0'));

  std::string src = Utf16Le("ab") + std::string(2, '\0') + "zz";
  CopyUtf16(src.c_str(), dst, sizeof dst);
  EXPECT_EQ(std::string(dst, 8), Utf16Le("ab") + std::string(2, '\0'));
  EXPECT_EQ(dst[8], '\0');
}

TEST(CopyUtf16, TruncationLeavesAZeroPairInsideTheField) {
  std::string src = Utf16Le(std::string(300, 'x'));
  for (size_t size : {8u, 16u, 255u}) {
    char dst[255];
    memset(dst, 0x7F, sizeof dst);
    CopyUtf16(src.c_str(), dst, size);
    size_t n = 0;
    while (n + 1 < size && !(dst[n] == '\0' && dst[n + 1] == '\0')) n += 2;
    EXPECT_LT(n + 1, size) << size;
    EXPECT_EQ(std::string(dst, 2), "\xFF\xFE") << size;
  }
}

TEST(TrimSpaces, OnlyBlanksAtBothEnds) {
  char a[] = "  Song   ";
  TrimSpaces(a);
  EXPECT_STREQ(a, "Song");
  char b[] = "\tSong\t ";
  TrimSpaces(b);
  EXPECT_STREQ(b, "\tSong\t");
  char c[] = "    ";
  TrimSpaces(c);
  EXPECT_STREQ(c, "");
}

TEST(Id3v1, BlankFieldsBecomeEmptyAndContentKeepsItsBlanks) {
  Id3v1Fields f;
  f.title = "Song";
  f.artist = "";
  f.album = "  ";
  f.year = "199";
  f.pad = ' ';
  std::string bytes = Cbr128(4) + Id3v1(f);
  ByteReader reader;
  ByteReaderAttachMemory(&reader, bytes.data(), bytes.size());
  Id3v1Tag tag = {};
  ASSERT_EQ(ReadId3v1(&reader, &tag), 1);
  EXPECT_EQ(reader.length, int64_t(bytes.size()) - 128);
  EXPECT_EQ(std::string(tag.title, 30), "Song" + std::string(26, ' '));
  EXPECT_EQ(tag.artist[0], '\0');
  EXPECT_EQ(tag.album[0], '\0');

  MediaInfo rec;
  ASSERT_EQ(ReadRecord(bytes, &rec), 0);
  EXPECT_STREQ(rec.title, "Song");
  EXPECT_STREQ(rec.artist, "");
  EXPECT_STREQ(rec.year, "199 ") << "the year is deliberately not trimmed";
}

TEST(Id3v1, TrackOnlyFromVersion11WithARealTrackByte) {
  auto track_of = [](int track, char byte125) {
    Id3v1Fields f;
    f.title = "T";
    std::string tag = Id3v1(f);
    tag[125] = byte125;
    tag[126] = char(track);
    MediaInfo rec;
    EXPECT_EQ(ReadRecord(Cbr128(4) + tag, &rec), 0);
    return rec.track;
  };
  EXPECT_EQ(track_of(7, '\0'), 7);
  EXPECT_EQ(track_of(200, '\0'), 200);
  EXPECT_EQ(track_of(32, '\0'), 0) << "a blank is not a track";
  EXPECT_EQ(track_of(7, 'x'), 0) << "ID3v1.0 comment text is not a track";
}

TEST(Id3v1, TagBytesAreLeftOutOfTheAudio) {
  // The estimate covers the file without its last 128 bytes.
  std::string audio = Cbr128(20);
  MediaInfo rec;
  ASSERT_EQ(ReadRecord(audio + Id3v1({}), &rec), 0);
  EXPECT_FLOAT_EQ(rec.duration, float(audio.size() / 128.0 * 0.008));
}

TEST(TagMerge, Id3v2WinsOverId3v1OverTheDefaults) {
  Id3v2Info v2 = {};
  Id3v1Tag v1 = {};
  memcpy(v1.title, "Old title  ", 11);
  memcpy(v1.artist, "  Old artist", 12);
  memcpy(v1.year, "1990", 4);
  snprintf(v2.title, sizeof v2.title, "New title");
  MediaInfo rec = Merge(v2, v1, "file name");
  EXPECT_STREQ(rec.title, "New title");
  EXPECT_STREQ(rec.artist, "Old artist");
  EXPECT_STREQ(rec.year, "1990");

  v2.title[0] = '\0';
  EXPECT_STREQ(Merge(v2, v1, "file name").title, "Old title");
  v1.title[0] = '\0';
  EXPECT_STREQ(Merge(v2, v1, "file name").title, "file name");
}

TEST(TagMerge, FullId3v1FieldsAreReadByTheirWidth) {
  Id3v2Info v2 = {};
  Id3v1Tag v1;
  memset(&v1, 'a', sizeof v1);  // no field is NUL-terminated
  v1.genre = 0;
  MediaInfo rec = Merge(v2, v1);
  EXPECT_EQ(strlen(rec.title), 30u);
  EXPECT_EQ(strlen(rec.artist), 30u);
  EXPECT_EQ(strlen(rec.album), 30u);
  EXPECT_EQ(strlen(rec.year), 4u);
}

TEST(GenreMerge, NumbersInParenthesesName) {
  EXPECT_EQ(GenreFromV2("(17)"), "Rock");
  EXPECT_EQ(GenreFromV2("(17)Rock"), "Rock");
  EXPECT_EQ(GenreFromV2("(0)"), "Blues");
  EXPECT_EQ(GenreFromV2("(147)"), "SynthPop");
  EXPECT_EQ(GenreFromV2("(148)"), "148");
  EXPECT_EQ(GenreFromV2("(200)"), "200");
}

TEST(GenreMerge, NonNumbersInParenthesesGiveNoGenre) {
  EXPECT_EQ(GenreFromV2("(RX)"), "");
  EXPECT_EQ(GenreFromV2("(CR)Cover"), "");
  EXPECT_EQ(GenreFromV2("()"), "");
  EXPECT_EQ(GenreFromV2("(12a)"), "");
}

TEST(GenreMerge, TextWithoutOrderedParenthesesIsCopied) {
  EXPECT_EQ(GenreFromV2("Trip Hop"), "Trip Hop");
  EXPECT_EQ(GenreFromV2(")17("), ")17(");
  EXPECT_EQ(GenreFromV2("Rock (live"), "Rock (live");
}

TEST(GenreMerge, Id3v1ByteZeroAndOutOfRangeGiveNoGenre) {
  EXPECT_EQ(GenreFromV1(0), "");
  EXPECT_EQ(GenreFromV1(255), "");
  EXPECT_EQ(GenreFromV1(148), "");
  EXPECT_EQ(GenreFromV1(17), "Rock");
  EXPECT_EQ(GenreFromV1(147), "SynthPop");
}

TEST(GenreTable, KeepsItsHistoricSpellings) {
  EXPECT_STREQ(kId3Genres[67], "Psychadelic");
  EXPECT_STREQ(kId3Genres[85], "Bebob");
  EXPECT_STREQ(kId3Genres[123], "A capella");
  EXPECT_STREQ(kId3Genres[140], "Contemporary C");
}

}  // namespace
