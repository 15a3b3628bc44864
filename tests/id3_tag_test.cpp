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
  EXPECT_GT(ProbeId3v2(&reader, &version), 0);
  if (version == 2)
    ReadId3v22Frames(&info, &reader);
  else
    ReadId3v2Frames(&info, &reader, version);
  return info;
}

std::string Utf16(const std::string& ascii, bool little) {
  std::string out = little ? "\xFF\xFE" : "\xFE\xFF";
  for (char c : ascii) out += little ? std::string{c, '\0'} : std::string{'\0', c};
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

TEST(Id3v2FrameSize, Version4SizesAreSyncsafeAndVersion3SizesArePlain) {
  // 200 bytes: syncsafe 00 00 01 48, which read as a plain integer is 328.
  std::string title(199, 't');
  std::string frames = Frame24("TIT2", Text(title)) + Frame24("TPE1", Text("Artist"));
  Id3v2Info v4 = ReadV2(Id3v2(4, frames, 400));
  EXPECT_EQ(std::string(v4.title), title);
  EXPECT_STREQ(v4.artist, "Artist");
  EXPECT_STREQ(ReadV2(Id3v2(3, frames, 400)).artist, "");
}

TEST(Id3v2FrameSize, TextFrameAbove1023BytesEndsTheTagButPicturesAreSkipped) {
  std::string comment = Frame23("COMM", Text(std::string(1999, 'c')));
  EXPECT_STREQ(ReadV2(Id3v2(3, comment + Frame23("TIT2", Text("Title")))).title, "");

  Id3v2Info edge = ReadV2(Id3v2(3, Frame23("TIT2", Text(std::string(1022, 'x'))) + Frame23("TPE1", Text("A"))));
  EXPECT_EQ(strlen(edge.title), 1022u) << "1023 bytes is still a text frame";
  EXPECT_STREQ(edge.artist, "A");

  std::string picture = std::string(1, '\0') + "image/jpeg" + std::string(5000, '\xFF');
  EXPECT_STREQ(ReadV2(Id3v2(3, Frame23("APIC", picture) + Frame23("TIT2", Text("After")))).title, "After");
}

TEST(Id3v2FrameSize, Version22SizeBytesAreOredNotShifted) {
  // Size bytes 00 01 00 read as 1: the next frame starts one byte later.
  std::string frames = std::string("TT2") + std::string{'\0', '\x01', '\0'} + "X" + Frame22("TP1", Text("Artist"));
  Id3v2Info quirk = ReadV2(Id3v2(2, frames, 300));
  EXPECT_STREQ(quirk.title, "");
  EXPECT_STREQ(quirk.artist, "Artist");

  Id3v2Info ids = ReadV2(Id3v2(2, Frame22("TT2", Text("T")) + Frame22("TAL", Text("Al")) + Frame22("TYE", Text("1999")) +
                                      Frame22("TCO", Text("(17)")) + Frame22("TRK", Text("3/9"))));
  EXPECT_STREQ(ids.title, "T");
  EXPECT_STREQ(ids.album, "Al");
  EXPECT_STREQ(ids.year, "1999");
  EXPECT_STREQ(ids.genre, "(17)");
  EXPECT_STREQ(ids.track, "3");
}

TEST(Id3v2Text, LaterFrameWinsAndTrackIsCutAtTheSlash) {
  Id3v2Info info = ReadV2(Id3v2(3, Frame23("TIT2", Text("First")) + Frame23("TIT2", Text("Second")) +
                                       Frame23("TRCK", Text("07/12"))));
  EXPECT_STREQ(info.title, "Second");
  EXPECT_STREQ(info.track, "07");
  EXPECT_EQ(Merge(info, Id3v1Tag{}).track, 7);
}

TEST(Id3v2Text, Utf16KeepsItsByteOrderMarkAndSetsTheFlag) {
  std::string le = Utf16("Hi", true), be = Utf16("Hi", false);
  Id3v2Info a = ReadV2(Id3v2(3, Frame23("TIT2", "\x01" + le) + Frame23("TPE1", "\x01" + be) +
                                    Frame23("TALB", "\x02" + be.substr(2)) + Frame23("TYER", "\x01" "2000")));
  EXPECT_EQ(std::string(a.title, 6), le);
  EXPECT_EQ(std::string(a.artist, 6), be);
  EXPECT_EQ(std::string(a.album, 6), be) << "encoding 2 gets FE FF put in front";
  EXPECT_STREQ(a.year, "2000") << "encoding 1 without a byte-order mark is copied as bytes";
  EXPECT_EQ(a.title_utf16 + a.artist_utf16 + a.album_utf16 + a.year_utf16, 3);

  Id3v2Info b = ReadV2(Id3v2(2, Frame22("TT2", "\x02" "ab")));
  EXPECT_STREQ(b.title, "ab") << "version 2.2 knows no encoding 2";
  EXPECT_EQ(b.title_utf16, 0);
}

TEST(CopyUtf16, NeedsAByteOrderMarkStopsAtAZeroPairAndEndsInOne) {
  char dst[255];
  CopyUtf16("abcd", dst, 16);
  EXPECT_EQ(std::string(dst, 16), std::string(16, '\0'));

  std::string src = Utf16("ab", true) + std::string(2, '\0') + "zz";
  CopyUtf16(src.c_str(), dst, 16);
  EXPECT_EQ(std::string(dst, 16), Utf16("ab", true) + std::string(10, '\0'));

  std::string longer = Utf16(std::string(300, 'x'), true);
  for (size_t size : {8u, 16u, 255u}) {
    CopyUtf16(longer.c_str(), dst, size);
    size_t n = 0;
    while (n + 1 < size && !(dst[n] == '\0' && dst[n + 1] == '\0')) n += 2;
    EXPECT_LT(n + 1, size) << "no terminating pair within " << size;
  }
}

TEST(TrimSpaces, OnlyBlanksAtBothEnds) {
  char a[] = "  Song   ", b[] = "\tSong\t ", c[] = "    ";
  TrimSpaces(a);
  TrimSpaces(b);
  TrimSpaces(c);
  EXPECT_STREQ(a, "Song");
  EXPECT_STREQ(b, "\tSong\t");
  EXPECT_STREQ(c, "");
}

TEST(Id3v1, BlankFieldsBecomeEmptyTitlesAreTrimmedYearsAreNot) {
  Id3v1Fields f;
  f.title = "Song";
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
  EXPECT_STREQ(rec.year, "199 ");
  EXPECT_FLOAT_EQ(rec.duration, float((bytes.size() - 128) / 128.0 * 0.008)) << "the tag is not audio";
}

TEST(Id3v1, TrackOnlyFromVersion11WithARealTrackByte) {
  auto track_of = [](int track, char byte125) {
    std::string tag = Id3v1({});
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

TEST(TagMerge, Id3v2WinsOverId3v1OverTheDefaults) {
  Id3v2Info v2 = {};
  Id3v1Tag v1 = {};
  memcpy(v1.title, "Old title  ", 11);
  memcpy(v1.artist, "  Old artist", 12);
  snprintf(v2.title, sizeof v2.title, "New title");
  MediaInfo rec = Merge(v2, v1, "file name");
  EXPECT_STREQ(rec.title, "New title");
  EXPECT_STREQ(rec.artist, "Old artist");
  v2.title[0] = '\0';
  EXPECT_STREQ(Merge(v2, v1, "file name").title, "Old title");
  v1.title[0] = '\0';
  EXPECT_STREQ(Merge(v2, v1, "file name").title, "file name");
}

TEST(TagMerge, FullId3v1FieldsAreReadByTheirWidth) {
  Id3v1Tag v1;
  memset(&v1, 'a', sizeof v1);  // no field is NUL-terminated
  MediaInfo rec = Merge(Id3v2Info{}, v1);
  EXPECT_EQ(strlen(rec.title), 30u);
  EXPECT_EQ(strlen(rec.artist), 30u);
  EXPECT_EQ(strlen(rec.album), 30u);
  EXPECT_EQ(strlen(rec.year), 4u);
}

TEST(TagMerge, GenreNumbersOnlyInParenthesesAndNeverId3v1Zero) {
  const std::pair<const char*, const char*> v2_forms[] = {
      {"(17)", "Rock"},  {"(17)Rock", "Rock"}, {"(147)", "SynthPop"}, {"(148)", "148"},       {"(200)", "200"},
      {"(RX)", ""},      {"()", ""},           {"(12a)", ""},         {"Trip Hop", "Trip Hop"}, {")17(", ")17("},
  };
  for (const auto& [form, expected] : v2_forms) {
    Id3v2Info v2 = {};
    snprintf(v2.genre, sizeof v2.genre, "%s", form);
    EXPECT_STREQ(Merge(v2, Id3v1Tag{}).genre, expected) << form;
  }
  const std::pair<int, const char*> v1_bytes[] = {{0, ""}, {17, "Rock"}, {147, "SynthPop"}, {148, ""}, {255, ""}};
  for (const auto& [byte, expected] : v1_bytes) {
    Id3v1Tag v1 = {};
    v1.genre = static_cast<unsigned char>(byte);
    EXPECT_STREQ(Merge(Id3v2Info{}, v1).genre, expected) << byte;
  }
}

}  // namespace
