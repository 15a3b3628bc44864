// The MPEG audio frame search, its confirmation, and the play time from the
// length, a Xing header or a VBRI header.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "meta/metaid3.h"
#include "meta/mpeg_audio.h"
#include "mp3_test_bytes.h"
#include "support/log_capture.h"

using namespace mp3test;

namespace {

MpegInfo Decode(const std::string& bytes) {
  ByteReader reader;
  ByteReaderAttachMemory(&reader, bytes.data(), bytes.size());
  MpegInfo info = {};
  EXPECT_EQ(DecodeMpegHeader(&reader, 0, &info), 1);
  return info;
}

bool Accepted(const std::string& header_and_more) {
  ByteReader reader;
  ByteReaderAttachMemory(&reader, header_and_more.data(), header_and_more.size());
  return CheckMpegHeader(&reader, 0) == 0;
}

TEST(FrameHeader, FlagsAreReadFromTheirBits) {
  // FB: no CRC. 92: 128 kbit/s, 44100 Hz, padding. 6D: joint stereo, mode
  // extension 2, copyright, original, emphasis 1.
  MpegInfo info = Decode(Frames(0xFB, 0x92, 0x6D, 418, 1));
  EXPECT_EQ(info.is_protected, 0);
  EXPECT_EQ(info.frame_length, 418);
  EXPECT_EQ(info.mode_extension, 2);
  EXPECT_EQ(info.rights_flag + info.original + info.emphasis, 3);
  MpegInfo mono = Decode(Frames(0xFA, 0x90, 0xC0, 417, 1));
  EXPECT_EQ(mono.is_protected, 1);
  EXPECT_EQ(mono.mode_extension, -1) << "only joint stereo has a mode extension";
}

TEST(FrameHeader, LengthsFollowTheTruncatingRules) {
  // MPEG-2 layer III, 64 kbit/s, 22050 Hz: 72000 * 64 / 22050 = 208.97.
  EXPECT_EQ(Decode(Frames(0xF3, 0x80, 0x00, 208, 1)).frame_length, 208);
  // MPEG-1 layer I, 384 kbit/s, 44100 Hz: the product is divided whole, not
  // in 4-byte slots, giving 417 rather than 416.
  EXPECT_EQ(Decode(Frames(0xFF, 0xC0, 0x00, 417, 1)).frame_length, 417);
  // MPEG-1 layer II, 384 kbit/s, 48000 Hz.
  EXPECT_EQ(Decode(Frames(0xFD, 0xE4, 0x00, 1152, 1)).frame_length, 1152);
  // MPEG-2 layer II deliberately shares the layer III factor: 72000 * 160 / 24000.
  EXPECT_EQ(Decode(Frames(0xF5, 0xE4, 0x00, 480, 1)).frame_length, 480);
  // MPEG-2 layer I, 256 kbit/s, 16000 Hz, padded: 24000 * 256 / 16000 + 4.
  EXPECT_EQ(Decode(Frames(0xF7, 0xEA, 0x00, 388, 1)).frame_length, 388);
}

TEST(FrameHeader, InvalidFieldsAndMpeg25AreRejected) {
  EXPECT_TRUE(Accepted(Frames(0xFB, 0x90, 0x00, 417, 1)));
  EXPECT_FALSE(Accepted(Frames(0xF9, 0x90, 0x00, 417, 1))) << "layer bits 00";
  EXPECT_FALSE(Accepted(Frames(0xFB, 0xF0, 0x00, 417, 1))) << "bit-rate index 15";
  EXPECT_FALSE(Accepted(Frames(0xFB, 0x9C, 0x00, 417, 1))) << "sample-rate index 3";
  EXPECT_FALSE(Accepted(Frames(0xFB, 0x00, 0x00, 417, 1))) << "free format";
  EXPECT_FALSE(Accepted(Frames(0xFB, 0x02, 0x00, 417, 1))) << "free format with padding";
  EXPECT_FALSE(Accepted(Frames(0xE3, 0x80, 0x00, 417, 1))) << "MPEG-2.5";
  EXPECT_FALSE(Accepted(Frames(0xEB, 0x80, 0x00, 417, 1))) << "reserved version";
  EXPECT_FALSE(Accepted(std::string("\xFE\xFB\x90\x00", 4))) << "no sync";
}

TEST(FrameSearch, Mpeg25StreamsAreNeverIndexed) {
  orvo::test::LogCapture log;
  MediaInfo rec;
  // MPEG-2.5 layer III, 32 kbit/s, 12000 Hz: 72000 * 32 / 12000 = 192 bytes.
  EXPECT_EQ(ReadRecord(Frames(0xE3, 0x44, 0xC0, 192, 50), &rec), -1);
  EXPECT_TRUE(log.Contains("Can't find valid mpeg header"));
  EXPECT_TRUE(log.Contains("MPEG Header not found"));
}

TEST(FrameSearch, StartsAfterTheId3v2Tag) {
  // A picture holding a perfect 320 kbit/s frame pair is never scanned.
  std::string fake = Frames(0xFB, 0xE0, 0x00, 1044, 2);
  std::string picture = std::string(1, '\0') + "image/png" + std::string(2, '\0') + fake;
  MediaInfo rec;
  ASSERT_EQ(ReadRecord(Id3v2(3, Frame23("APIC", picture)) + Cbr128(10), &rec), 0);
  EXPECT_EQ(rec.bitrate, 128000);
}

TEST(FrameSearch, StraySyncInGarbageNeedsAFollowingHeader) {
  // A 320 kbit/s header in the garbage whose next "frame" is not a header.
  std::string garbage = std::string(100, '\x22') + Frames(0xFB, 0xE0, 0x00, 1044, 1) + std::string(300, '\x22');
  MediaInfo rec;
  ASSERT_EQ(ReadRecord(garbage + Cbr128(10), &rec), 0);
  EXPECT_EQ(rec.bitrate, 128000);

  // Confirmed by the header one frame length on, it is taken.
  ASSERT_EQ(ReadRecord(std::string(100, '\x22') + Frames(0xFB, 0xE0, 0x00, 1044, 1) + Cbr128(10), &rec), 0);
  EXPECT_EQ(rec.bitrate, 320000);
}

TEST(FrameSearch, PaddingSkipLooksOneBytePastTheCandidate) {
  // Deliberate off-by-one: after a frame followed by zero bytes the check
  // lands on the last zero, so that frame is not confirmed and the search
  // moves on to the stream after it.
  std::string first = Frames(0xFB, 0xE0, 0x00, 1044, 1) + std::string(4, '\0');
  MediaInfo rec;
  ASSERT_EQ(ReadRecord(first + Cbr128(10), &rec), 0);
  EXPECT_EQ(rec.bitrate, 128000);
}

TEST(FrameSearch, LongZeroRunsAfterCandidatesEndWithoutAHeader) {
  // Many candidate headers whose frames all end in one long run of zeros.
  std::string bytes;
  for (int i = 0; i < 400; ++i) bytes += std::string("\xFF\xFB\x90\x00", 4);
  bytes += std::string(2 << 20, '\0');
  orvo::test::LogCapture log;
  MediaInfo rec;
  EXPECT_EQ(ReadRecord(bytes, &rec), -1);
  EXPECT_TRUE(log.Contains("Can't find valid mpeg header"));
}

TEST(Duration, CbrIsTheWholeLengthAtTheFirstFrameRate) {
  std::string bytes = Cbr128(9592);
  bytes.resize(4000000, '\0');
  MediaInfo rec;
  ASSERT_EQ(ReadRecord(bytes, &rec), 0);
  EXPECT_FLOAT_EQ(rec.duration, 250.0f);
  EXPECT_EQ(rec.bitrate, 128000);
  EXPECT_EQ(rec.frequency, 44100);

  // A leading ID3v2 tag counts towards the length.
  std::string tagged = Id3v2(3, Frame23("TIT2", Text("x")), 1000 - 10 - 11) + Cbr128(20);
  ASSERT_EQ(ReadRecord(tagged, &rec), 0);
  EXPECT_FLOAT_EQ(rec.duration, float(tagged.size() / 128.0 * 0.008));
}

TEST(Duration, XingFrameCountGivesThePlayTime) {
  MediaInfo rec;
  ASSERT_EQ(ReadRecord(XingStream(10000, 20), &rec), 0);
  EXPECT_NEAR(rec.duration, 10000 * 1152.0 / 44100, 1e-3);
  EXPECT_EQ(rec.bitrate, 128000) << "the bit rate is never recomputed";

  // Without the frames flag the length estimate stays.
  std::string no_flag = XingStream(10000, 20, false);
  ASSERT_EQ(ReadRecord(no_flag, &rec), 0);
  EXPECT_FLOAT_EQ(rec.duration, float(no_flag.size() / 128.0 * 0.008));

  // Only "Xing" is looked for.
  std::string info = XingStream(10000, 20);
  info.replace(36, 4, "Info");
  ASSERT_EQ(ReadRecord(info, &rec), 0);
  EXPECT_FLOAT_EQ(rec.duration, float(info.size() / 128.0 * 0.008));
}

TEST(Duration, XingBeyondAQuarterOfTheFileIsNotSeen) {
  // 5 frames: the header at byte 36 of 2085 lies within the first quarter;
  // behind a tag that fills most of the file it does not.
  std::string tag = Id3v2(3, Frame23("TIT2", Text("x")), 3000);
  MediaInfo rec;
  std::string bytes = tag + XingStream(10000, 4);
  ASSERT_EQ(ReadRecord(bytes, &rec), 0);
  EXPECT_FLOAT_EQ(rec.duration, float(bytes.size() / 128.0 * 0.008));
}

TEST(Duration, VbriIsReadOnlyWithoutXing) {
  MediaInfo rec;
  ASSERT_EQ(ReadRecord(VbriStream(5000, 20), &rec), 0);
  EXPECT_NEAR(rec.duration, 5000 * 1152.0 / 44100, 1e-3);
}

TEST(Duration, VbrHeaderAcrossTheReadBufferEdgeIsFound) {
  // The search reads from the end of the tag; place the header so that its
  // four letters straddle the first 16384-byte buffer.
  std::string tag = Id3v2(3, Frame23("TIT2", Text("x")));
  for (int straddle : {1, 2, 3}) {
    size_t garbage = size_t(kByteReaderBufferSize - straddle - 36);
    MediaInfo rec;
    ASSERT_EQ(ReadRecord(tag + std::string(garbage, '\x22') + XingStream(10000, 150), &rec), 0);
    EXPECT_NEAR(rec.duration, 10000 * 1152.0 / 44100, 1e-3) << straddle;
    ASSERT_EQ(ReadRecord(tag + std::string(garbage, '\x22') + VbriStream(5000, 150), &rec), 0);
    EXPECT_NEAR(rec.duration, 5000 * 1152.0 / 44100, 1e-3) << straddle;
  }
}

TEST(Duration, XingWithoutFramesFallsBackToALaterVbri) {
  std::string bytes = XingStream(10000, 3, false) + VbriStream(5000, 20);
  MediaInfo rec;
  ASSERT_EQ(ReadRecord(bytes, &rec), 0);
  EXPECT_NEAR(rec.duration, 5000 * 1152.0 / 44100, 1e-3);
}

TEST(Duration, TwelveHoursOrMoreIsNotBelieved) {
  // 1653750 frames of 1152 samples at 44100 Hz are exactly 43200 s: the
  // length estimate stays.
  std::string bytes = XingStream(1653750, 20);
  MediaInfo rec;
  ASSERT_EQ(ReadRecord(bytes, &rec), 0);
  EXPECT_FLOAT_EQ(rec.duration, float(bytes.size() / 128.0 * 0.008));

  // The merge stores 0 for an estimate that is out of range itself.
  MpegInfo mpeg = {};
  Id3v1Tag v1 = {};
  Id3v2Info v2 = {};
  memset(&rec, 0, sizeof rec);
  for (double seconds : {43200.0, 1e9, 0.0, -1.0}) {
    mpeg.duration = seconds;
    MergeMp3Info(&rec, &mpeg, &v1, &v2);
    EXPECT_EQ(rec.duration, 0.0f) << seconds;
  }
  mpeg.duration = 43199.5;
  MergeMp3Info(&rec, &mpeg, &v1, &v2);
  EXPECT_FLOAT_EQ(rec.duration, 43199.5f);
}

TEST(StreamFields, ChannelsCarryTheChannelModeCode) {
  MediaInfo rec;
  ASSERT_EQ(ReadRecord(Cbr128(10, 3), &rec), 0);
  EXPECT_EQ(rec.channels, 3) << "mono reports its mode code, not 1";
  ASSERT_EQ(ReadRecord(Cbr128(10, 0), &rec), 0);
  EXPECT_EQ(rec.channels, 0) << "stereo reports 0, not 2";
}

}  // namespace
