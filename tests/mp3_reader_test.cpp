// The MP3 reader (frames, play times, tags, damaged files, the corpus) and the MP3 handler on both backends.
#include "formats_testutil.h"
#include "mp3_test_bytes.h"
#include "support/db_fixture.h"

using namespace formats_test;
using namespace mp3test;

namespace {

// The length estimate at 128 kbit/s, and the Xing/VBRI play times used below.
float Estimate(const std::string& bytes) { return float(bytes.size() / 128.0 * 0.008); }
const double kXing10000 = 10000 * 1152.0 / 44100, kVbri5000 = 5000 * 1152.0 / 44100;

// The record the tags and the frame search's play time make.
MediaInfo Merge(const Id3v2Info& v2, const Id3v1Tag& v1, const char* default_title = "", double seconds = 0) {
  MediaInfo rec = {};
  snprintf(rec.title, sizeof rec.title, "%s", default_title);
  MpegInfo mpeg = {};
  mpeg.duration = seconds;
  MergeMp3Info(&rec, &mpeg, &v1, &v2);
  return rec;
}

TEST(FrameSearch, BadFieldsAndMpeg25AreRefused) {
  for (auto [b1, b2] : {std::pair{0xF9, 0x90}, {0xFB, 0xF0}, {0xFB, 0x9C}, {0xFB, 0x02}, {0xEB, 0x80}}) {
    std::string bytes = Frames(uint8_t(b1), uint8_t(b2), 0, 417, 2);  // layer 00, bit rate 15, rate 3, free, version 01
    ByteReader reader;
    ByteReaderAttachMemory(&reader, bytes.data(), bytes.size());
    EXPECT_NE(CheckMpegHeader(&reader, 0), 0) << std::hex << b1 << " " << b2;
  }
  orvo::test::LogCapture log;
  MediaInfo rec;
  // MPEG-2.5 layer III, 32 kbit/s, 12000 Hz: 192-byte frames.
  EXPECT_EQ(ReadRecord(Frames(0xE3, 0x44, 0xC0, 192, 50), &rec), -1);
  EXPECT_TRUE(log.Contains("MPEG Header not found"));
}

TEST(FrameSearch, StraySyncsNeedAConfirmingHeaderAndTagsAreNotScanned) {
  MediaInfo rec;
  // A perfect 320 kbit/s frame pair inside a picture frame is never seen.
  std::string picture = std::string(1, '\0') + "image/png" + std::string(2, '\0') + Frames(0xFB, 0xE0, 0, 1044, 2);
  ASSERT_EQ(ReadRecord(Id3v2(3, Frame23("APIC", picture)) + Cbr128(10), &rec), 0);
  EXPECT_EQ(rec.bitrate, 128000);
  // A 320 kbit/s header in garbage whose next "frame" is no header is passed over...
  std::string stray = std::string(100, '\x22') + Frames(0xFB, 0xE0, 0, 1044, 1);
  ASSERT_EQ(ReadRecord(stray + std::string(300, '\x22') + Cbr128(10), &rec), 0);
  EXPECT_EQ(rec.bitrate, 128000);
  // ...and taken once the header one frame length on confirms it.
  ASSERT_EQ(ReadRecord(stray + Cbr128(10), &rec), 0);
  EXPECT_EQ(rec.bitrate, 320000);
  // Deliberate off-by-one: the check after a frame and zero bytes lands on the last zero.
  ASSERT_EQ(ReadRecord(Frames(0xFB, 0xE0, 0, 1044, 1) + std::string(4, '\0') + Cbr128(10), &rec), 0);
  EXPECT_EQ(rec.bitrate, 128000);
}

// Candidates whose frames end in long zero runs: each run and the header after it are read once, not once
// per candidate (that read some 1000 times the file).
TEST(FrameSearch, FalseSyncsBeforeLongPaddingCostReadsInProportionToTheFile) {
  const size_t size = 512 * 1024;
  std::string bytes(size, '\0');
  // 1728 bytes of MPEG-1 layer II 384 kbit/s 32 kHz headers (frame length 1728), then 20000 zero bytes.
  for (size_t block = 0; block < size; block += 1728 + 20000)
    for (size_t at = block; at < block + 1728 && at + 4 <= size; at += 4) bytes.replace(at, 4, "\xFF\xFD\xE8\x00", 4);
  TempDir dir;
  std::string path = dir.File("padded.mp3");
  WriteBytes(path, bytes);
  orvo::test::LogCapture log;
  MediaInfo rec = {};
  long long before = BytesReadSoFar();
  EXPECT_EQ(ReadMp3Info(path.c_str(), &rec), -1);
  EXPECT_LT(BytesReadSoFar() - before, 8 * (long long)size);
  EXPECT_TRUE(log.Contains("Can't find valid mpeg header"));
}

TEST(Duration, CbrIsTheWholeLengthAtTheFirstFrameRateTagIncluded) {
  std::string bytes = Id3v2(3, Frame23("TIT2", Text("x")), 979) + Cbr128(9500);
  bytes.resize(4000000, '\0');
  MediaInfo rec;
  ASSERT_EQ(ReadRecord(bytes, &rec), 0);
  EXPECT_FLOAT_EQ(rec.duration, 250.0f);
  EXPECT_EQ(rec.channels, 1) << "the channel-mode code (joint stereo), not the count";
}

TEST(Duration, XingFrameCountGivesThePlayTimeOnlyWithItsFlagAndNameInReach) {
  MediaInfo rec;
  ASSERT_EQ(ReadRecord(XingStream(10000, 20), &rec), 0);
  EXPECT_NEAR(rec.duration, kXing10000, 1e-3);
  EXPECT_EQ(rec.bitrate, 128000) << "the bit rate is never recomputed";
  std::string info = XingStream(10000, 20);
  info.replace(36, 4, "Info");
  // 43200 s (1653750 frames) is not believed; behind a large tag the header is past the first quarter.
  for (const std::string& bytes : {XingStream(10000, 20, false), info, XingStream(1653750, 20),
                                   Id3v2(3, Frame23("TIT2", Text("x")), 3000) + XingStream(10000, 4)}) {
    ASSERT_EQ(ReadRecord(bytes, &rec), 0);
    EXPECT_FLOAT_EQ(rec.duration, Estimate(bytes));
  }
  // An estimate out of range itself is stored as 0.
  for (double seconds : {43200.0, -1.0}) EXPECT_EQ(Merge({}, {}, "", seconds).duration, 0.0f) << seconds;
}

TEST(Duration, VbriIsReadWhenNoXingFrameCountIsThereEvenAcrossTheBufferEdge) {
  MediaInfo rec;
  ASSERT_EQ(ReadRecord(XingStream(10000, 3, false) + VbriStream(5000, 20), &rec), 0);
  EXPECT_NEAR(rec.duration, kVbri5000, 1e-3);
  // Read from the end of the tag, the header's four letters straddle the first buffer.
  std::string tag = Id3v2(3, Frame23("TIT2", Text("x")));
  for (int straddle : {1, 2, 3}) {
    std::string garbage(size_t(kByteReaderBufferSize - straddle - 36), '\x22');
    ASSERT_EQ(ReadRecord(tag + garbage + XingStream(10000, 150), &rec), 0);
    EXPECT_NEAR(rec.duration, kXing10000, 1e-3) << straddle;
    ASSERT_EQ(ReadRecord(tag + garbage + VbriStream(5000, 150), &rec), 0);
    EXPECT_NEAR(rec.duration, kVbri5000, 1e-3) << straddle;
  }
}

TEST(DamagedFile, DegenerateFilesAreRefusedWithAMessage) {
  std::string zero_runs;  // many candidates whose frames all end in one long run of zeros
  for (int i = 0; i < 400; ++i) zero_runs += std::string("\xFF\xFB\x90\x00", 4);
  const std::pair<const char*, std::string> cases[] = {
      {"empty", ""}, {"one byte", "\xFF"}, {"all 0xFF", std::string(100000, '\xFF')},
      {"all zero", std::string(100000, '\0')}, {"sync at the very end", std::string(50, '\0') + "\xFF\xFB\x90\x00"},
      {"tag claiming 256 MiB", std::string("ID3\x03\0\0\x7F\x7F\x7F\x7FTIT2\xFF\xFF\xFF\xFF\0\0x", 21) + Cbr128(4)},
      {"zero runs", zero_runs + std::string(2 << 20, '\0')}};
  TempDir dir;
  for (const auto& [name, bytes] : cases) {
    orvo::test::LogCapture log;
    WriteBytes(dir.File("damaged.mp3"), bytes);
    MediaInfo rec = {};
    EXPECT_EQ(ReadMp3Info(dir.File("damaged.mp3").c_str(), &rec), -1) << name;
    EXPECT_TRUE(log.Contains("Can't find valid mpeg header")) << name;
  }
}

// Tags at both ends around a Xing stream.
std::string GoodFile() {
  return Id3v2(3, Frame23("TIT2", Text("Title")), 64) + XingStream(1000, 40) + Id3v1("v1");
}

TEST(DamagedFile, EveryTruncationOfAGoodFileIsSafeAndLoggedWhenRefused) {
  std::string good = GoodFile();
  // The next header confirms one; bytes past the end read as 17, so its two sync bytes suffice.
  size_t confirmable = good.find("\xFF\xFB") + kFrame128Length + 2;
  for (size_t n = 0; n < good.size(); ++n) {
    orvo::test::LogCapture log;
    MediaInfo rec;
    EXPECT_EQ(ReadRecord(good.substr(0, n), &rec), n < confirmable ? -1 : 0) << n;
    EXPECT_EQ(log.Contains("Can't find valid mpeg header"), n < confirmable) << n;
  }
}

TEST(DamagedFile, FileThatShrinksWhileBeingReadEndsCleanly) {
  std::string good = GoodFile() + Cbr128(200);
  TempDir dir;
  for (off_t keep : {off_t(0), off_t(40), off_t(2000), off_t(30000)}) {
    std::string path = dir.File("shrinking.mp3");
    WriteBytes(path, good);
    FILE* f = fopen(path.c_str(), "rb");
    ASSERT_NE(f, nullptr);
    ByteReader reader;
    ByteReaderAttachFile(&reader, f, int64_t(good.size()));  // the length taken before it shrank
    ASSERT_EQ(truncate(path.c_str(), keep), 0);
    MediaInfo rec = {};
    orvo::test::LogCapture log;
    int result = ReadMp3InfoFromReader(&reader, path.c_str(), &rec);
    fclose(f);
    EXPECT_EQ(result, keep < 2000 ? -1 : 0) << keep;
    EXPECT_EQ(log.Contains("Can't find valid mpeg header"), keep < 2000) << keep;
  }
}

// Tags. The ID3v2 frames of `bytes`, read the way the driver does.
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

TEST(Id3v2FrameSize, SyncsafeInVersion4PlainInVersion3OredInVersion22) {
  // 200 bytes: syncsafe 00 00 01 48, which read as a plain integer is 328.
  std::string title(199, 't');
  std::string frames = Frame24("TIT2", Text(title)) + Frame24("TPE1", Text("Artist"));
  Id3v2Info v24 = ReadV2(Id3v2(4, frames, 400));
  EXPECT_EQ(std::string(v24.title) + "|" + v24.artist, title + "|Artist");
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

// Corpus MP3s against reference.json where our rules and the tools' agree, else our deliberate rule.
const std::string kMp3Dir = std::string(ORVO_CORPUS_DIR) + "/mp3";

// A record field as ASCII, UTF-16 decoded by its byte-order mark; "" when not ASCII.
std::string Ascii(const char* field, size_t size, bool utf16) {
  std::string out;
  bool little = static_cast<unsigned char>(field[0]) == 0xFF;
  for (size_t i = utf16 ? 2 : 0; i + (utf16 ? 1 : 0) < size; i += utf16 ? 2 : 1) {
    char c = utf16 ? field[i + (little ? 0 : 1)] : field[i], high = utf16 ? field[i + (little ? 1 : 0)] : '\0';
    if (c == '\0' && high == '\0') break;
    if (static_cast<unsigned char>(c) > 0x7F || high != '\0') return "";
    out += c;
  }
  return out;
}

struct CorpusFile {
  std::string entry;  // the file's reference.json object, as text
  int result;
  MediaInfo rec;
};

class Mp3Corpus : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    for (const std::string& path : CorpusFiles("mp3")) {
      std::string name = fs::path(path).filename().string();
      CorpusFile& f = files_[name];
      f.entry = Reference("mp3/" + name);
      f.rec = {};
      orvo::test::LogCapture quiet;
      f.result = ReadMp3Info(path.c_str(), &f.rec);
    }
  }
  void SetUp() override {
    if (files_.empty()) GTEST_SKIP() << "no MP3 corpus at " << kMp3Dir;
  }
  static inline std::map<std::string, CorpusFile> files_;
};

TEST_F(Mp3Corpus, IndexedExactlyWhenToolsFindMpeg1Or2AudioAndSampleRatesMatch) {
  int indexed = 0;
  for (const auto& [name, f] : files_) {
    std::string rate = RefText(f.entry, {"sample_rate"});
    // Deliberate: our MPEG-1 layer I and MPEG-2 layer II frame lengths never confirm such streams.
    bool refused = rate.empty() || RefText(f.entry, {"mpeg", "version"}) == "2.5" || name == "mpeg1_44_1khz.mp1" ||
                   name == "mpeg2_22050hz.mp2";
    EXPECT_EQ(f.result, refused ? -1 : 0) << name;
    if (f.result == 0) {
      EXPECT_EQ(std::to_string(f.rec.frequency), rate) << name;
    }
    indexed += f.result == 0;
  }
  EXPECT_GE(indexed, 30);
}

TEST_F(Mp3Corpus, TagTextMatchesTheToolsWhereWeReadIt) {
  int compared = 0;
  for (const auto& [name, f] : files_) {
    const MediaInfo& r = f.rec;
    const std::pair<const char*, std::string> fields[] = {{"title", Ascii(r.title, sizeof r.title, r.title_is_utf16)},
                                                          {"artist", Ascii(r.artist, sizeof r.artist, r.artist_is_utf16)},
                                                          {"album", Ascii(r.album, sizeof r.album, r.album_is_utf16)}};
    for (auto [key, ours] : fields) {
      std::string theirs = RefText(f.entry, {"tags", key}, "value", true);
      if (f.result != 0 || theirs.empty() || ours.empty()) continue;
      // ID3v1 text is cut at 30 bytes; trailing blanks are not compared.
      if (ours.size() == 30 && theirs.size() > 30) theirs.resize(30);
      while (!theirs.empty() && theirs.back() == ' ') theirs.pop_back();
      while (!ours.empty() && ours.back() == ' ') ours.pop_back();
      EXPECT_EQ(ours, theirs) << name << " " << key;
      ++compared;
    }
  }
  EXPECT_GE(compared, 30);
}

// Deliberately unread: past an ID3v2.4 extended header or or-ed ID3v2.2 sizes, bare or UTF-16 genre numbers.
TEST_F(Mp3Corpus, ExtendedHeaderWideVersion22FramesAndBareOrUtf16GenreNumbersAreNotRead) {
  EXPECT_STREQ(files_["cbr.mp3"].rec.title, "");
  EXPECT_EQ(std::string(files_["id3v2.2.mp3"].rec.artist) + "|" + files_["id3v2.2.mp3"].rec.title, "Shiny Toy Guns|");
  EXPECT_EQ(std::string(files_["rare_frames.mp3"].rec.genre) + files_["apev2-lyricsv2.mp3"].rec.genre, "1335");
  const MediaInfo& vbri = files_["vbri.mp3"].rec;
  EXPECT_EQ(Ascii(vbri.genre, sizeof vbri.genre, vbri.genre_is_utf16), "(3)Dance");
}

// The MP3 handler on both backends: file-name and folder defaults, and what is never saved.
class Mp3Index : public orvo::test::DatabaseTest {
 protected:
  // Writes `bytes` at `relative` under the test's folder and indexes it.
  std::string Index(const std::string& relative, const std::string& bytes, int expected = 0) {
    std::string path = TempDir() + "/" + relative;
    WriteBytes(path, bytes);
    EXPECT_EQ(IndexMp3(path.c_str()), expected) << path;
    return path;
  }
  std::string Row(const std::string& columns, const std::string& where) {
    ORVODBFlush();
    return orvo::test::QueryAll(OrvoDatabase::kMedia, "select " + columns + " from music" + where);
  }
};

TEST_P(Mp3Index, UntaggedFileTakesItsNameAndFolder) {
  for (const char* name : {"song.mp3", "archive.tar.mp3", ".mp3", "noext"}) Index(std::string("Best Of/") + name, Cbr128(10));
  EXPECT_EQ(Row("title, album, artist, year, genre", " order by title"),
            "|Best Of|||\narchive.tar|Best Of|||\nnoext|Best Of|||\nsong|Best Of|||");
  // A folder name longer than the album field is cut, and logged.
  orvo::test::LogCapture log;
  Index(std::string(255, 'f') + "/a.mp3", Cbr128(10));
  EXPECT_TRUE(log.Contains("Impossible error."));
  EXPECT_EQ(Row("count(*)", " where album = '" + std::string(254, 'f') + "'"), "1");
}

TEST_P(Mp3Index, FileWithoutAudioIsNeverSavedAndMissingFileIsSilent) {
  orvo::test::LogCapture log;
  std::string path = Index("x/tagonly.mp3", Id3v2(3, Frame23("TIT2", Text("Only a tag"))) + Id3v1(), -1);
  EXPECT_TRUE(log.Contains("Can't find valid mpeg header: " + path));
  EXPECT_TRUE(log.Contains("Failed to parse music metadata."));
  EXPECT_EQ(Row("count(*)", ""), "0");
  log.Clear();
  EXPECT_EQ(IndexMp3((TempDir() + "/gone.mp3").c_str()), -1);
  EXPECT_TRUE(log.messages().empty());
  EXPECT_EQ(IndexMp3(nullptr), -1);
  EXPECT_EQ(log.Count("Bad parameter."), 1);
}

INSTANTIATE_TEST_SUITE_P(Backends, Mp3Index, ::testing::ValuesIn(orvo::test::DatabaseBackends()));

}  // namespace
