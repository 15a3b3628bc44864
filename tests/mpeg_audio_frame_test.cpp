// The MPEG audio frame search, play times (length, Xing, VBRI), and damaged, cut and shrinking files
// ending as a logged failure, never a crash, a hang or a read past the end.
#include <gtest/gtest.h>

#include "mp3_test_bytes.h"
#include "support/log_capture.h"

using namespace mp3test;

namespace {

// The length estimate at 128 kbit/s, and the Xing/VBRI play times used below.
float Estimate(const std::string& bytes) { return float(bytes.size() / 128.0 * 0.008); }
const double kXing10000 = 10000 * 1152.0 / 44100, kVbri5000 = 5000 * 1152.0 / 44100;

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
  MpegInfo mpeg = {};
  Id3v1Tag v1 = {};
  Id3v2Info v2 = {};
  for (double seconds : {43200.0, -1.0}) {
    rec = {};
    mpeg.duration = seconds;
    MergeMp3Info(&rec, &mpeg, &v1, &v2);
    EXPECT_EQ(rec.duration, 0.0f) << seconds;
  }
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
  for (const auto& [name, bytes] : cases) {
    orvo::test::LogCapture log;
    std::string path = WriteTemp(bytes);
    MediaInfo rec = {};
    EXPECT_EQ(ReadMp3Info(path.c_str(), &rec), -1) << name;
    EXPECT_TRUE(log.Contains("Can't find valid mpeg header")) << name;
    unlink(path.c_str());
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
  for (off_t keep : {off_t(0), off_t(40), off_t(2000), off_t(30000)}) {
    std::string path = WriteTemp(good);
    FILE* f = fopen(path.c_str(), "rb");
    ASSERT_NE(f, nullptr);
    ByteReader reader;
    ByteReaderAttachFile(&reader, f, int64_t(good.size()));  // the length taken before it shrank
    ASSERT_EQ(truncate(path.c_str(), keep), 0);
    MediaInfo rec = {};
    orvo::test::LogCapture log;
    int result = ReadMp3InfoFromReader(&reader, path.c_str(), &rec);
    fclose(f);
    unlink(path.c_str());
    EXPECT_EQ(result, keep < 2000 ? -1 : 0) << keep;
    EXPECT_EQ(log.Contains("Can't find valid mpeg header"), keep < 2000) << keep;
  }
}

}  // namespace
