// ID3v1 and ID3v2 tag reading and the merge of tag text into the record.
#include <gtest/gtest.h>

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

MediaInfo Merge(const Id3v2Info& v2, const Id3v1Tag& v1, const char* default_title = "") {
  MediaInfo rec = {};
  snprintf(rec.title, sizeof rec.title, "%s", default_title);
  MpegInfo mpeg = {};
  MergeMp3Info(&rec, &mpeg, &v1, &v2);
  return rec;
}

TEST(Id3v2FrameSize, SyncsafeInVersion4PlainInVersion3OredInVersion22) {
  // 200 bytes: syncsafe 00 00 01 48, which read as a plain integer is 328.
  std::string title(199, 't');
  std::string frames = Frame24("TIT2", Text(title)) + Frame24("TPE1", Text("Artist"));
  EXPECT_EQ(std::string(ReadV2(Id3v2(4, frames, 400)).title), title);
  EXPECT_STREQ(ReadV2(Id3v2(4, frames, 400)).artist, "Artist");
  EXPECT_STREQ(ReadV2(Id3v2(3, frames, 400)).artist, "");
  // Version 2.2 size bytes 00 01 00 read as 1: the next frame starts one byte later.
  Id3v2Info v22 = ReadV2(Id3v2(2, "TT2" + std::string{'\0', '\x01', '\0'} + "X" + Frame22("TP1", Text("A")), 300));
  EXPECT_STREQ(v22.title, "");
  EXPECT_STREQ(v22.artist, "A");
}

TEST(Id3v2FrameSize, TextFrameAbove1023BytesEndsTheTagButPicturesAreSkipped) {
  EXPECT_STREQ(ReadV2(Id3v2(3, Frame23("COMM", Text(std::string(1999, 'c'))) + Frame23("TIT2", Text("T")))).title, "");
  Id3v2Info edge = ReadV2(Id3v2(3, Frame23("TIT2", Text(std::string(1022, 'x'))) + Frame23("TPE1", Text("A"))));
  EXPECT_EQ(strlen(edge.title), 1022u) << "1023 bytes is still a text frame";
  EXPECT_STREQ(edge.artist, "A");
  std::string picture = std::string(1, '\0') + "image/jpeg" + std::string(5000, '\xFF');
  EXPECT_STREQ(ReadV2(Id3v2(3, Frame23("APIC", picture) + Frame23("TIT2", Text("After")))).title, "After");
}

TEST(Id3v2Text, Utf16KeepsEitherByteOrderMarkEncoding2GetsOneAndTrackIsCutAtTheSlash) {
  const std::string le("\xFF\xFEH\0i\0", 6), be("\xFE\xFF\0H\0i", 6), enc1(1, '\x01'), enc2(1, '\x02');
  Id3v2Info a = ReadV2(Id3v2(3, Frame23("TIT2", enc1 + le) + Frame23("TPE1", enc1 + be) +
                                    Frame23("TALB", enc2 + be.substr(2)) + Frame23("TYER", "\x01" "2000") +
                                    Frame23("TRCK", Text("07/12"))));
  EXPECT_STREQ(a.track, "07");
  EXPECT_EQ(Merge(a, Id3v1Tag{}).track, 7);
  EXPECT_EQ(std::string(a.title, 6), le);
  EXPECT_EQ(std::string(a.artist, 6), be);
  EXPECT_EQ(std::string(a.album, 6), be) << "encoding 2 gets FE FF put in front";
  EXPECT_STREQ(a.year, "2000") << "encoding 1 without a byte-order mark is copied as bytes";
  EXPECT_EQ(a.title_utf16 + a.artist_utf16 + a.album_utf16 + a.year_utf16, 3);
}

TEST(Id3v1, BlankFieldsBecomeEmptyTitlesAreTrimmedYearsAreNotTrackOnlyInVersion11) {
  std::string bytes = Cbr128(4) + Id3v1("Song", "199", ' ');
  MediaInfo rec;
  ASSERT_EQ(ReadRecord(bytes, &rec), 0);
  EXPECT_STREQ(rec.title, "Song");
  EXPECT_STREQ(rec.artist, "");
  EXPECT_STREQ(rec.year, "199 ");
  EXPECT_FLOAT_EQ(rec.duration, float((bytes.size() - 128) / 128.0 * 0.008)) << "the tag is not audio";
  // A track only in ID3v1.1: not a blank (32), nor ID3v1.0 comment text in byte 125.
  for (auto [track, byte125, expected] : {std::tuple{7, '\0', 7}, {200, '\0', 200}, {32, '\0', 0}, {7, 'x', 0}}) {
    std::string tag = Id3v1();
    tag.replace(125, 2, {byte125, char(track)});
    ASSERT_EQ(ReadRecord(Cbr128(4) + tag, &rec), 0);
    EXPECT_EQ(rec.track, expected) << track << " " << byte125;
  }
}

TEST(TagMerge, Id3v2WinsOverId3v1OverTheDefaultsAndFullId3v1FieldsStayBounded) {
  Id3v2Info v2 = {};
  Id3v1Tag v1 = {};
  memcpy(v1.title, "Old title  ", 11);
  memcpy(v1.artist, "Old artist", 10);
  snprintf(v2.artist, sizeof v2.artist, "New artist");
  MediaInfo rec = Merge(v2, v1, "file name");
  EXPECT_EQ(std::string(rec.title) + "|" + rec.artist, "Old title|New artist");
  v1.title[0] = '\0';
  EXPECT_STREQ(Merge(v2, v1, "file name").title, "file name");
  memset(&v1, 'a', sizeof v1);  // no field NUL-terminated: each is read by its width
  rec = Merge(Id3v2Info{}, v1);
  EXPECT_EQ(strlen(rec.title) + strlen(rec.artist) + strlen(rec.album) + strlen(rec.year), 94u);
}

TEST(TagMerge, GenreNumbersOnlyInParenthesesAndNeverId3v1Zero) {
  const std::pair<const char*, const char*> v2_forms[] = {
      {"(17)", "Rock"}, {"(17)Rock", "Rock"}, {"(147)", "SynthPop"}, {"(148)", "148"},         {"(200)", "200"},
      {"(RX)", ""},     {"()", ""},           {"(12a)", ""},         {"Trip Hop", "Trip Hop"}, {")17(", ")17("}};
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
