// The MPEG video parser and VCD handler: sequence headers built here, streams made with ffmpeg.
#include <unistd.h>

#include "formats_testutil.h"
#include "meta/metavideo.h"

using namespace formats_test;

namespace {

std::string SequenceHeader(unsigned width, unsigned height, int aspect, int rate_code, unsigned bitrate_value) {
  std::string s("\0\0\1\xb3", 4);
  for (unsigned byte : {width >> 4, ((width & 0xF) << 4) | (height >> 8), height & 0xFF,
                        unsigned(aspect << 4 | rate_code), bitrate_value >> 10, (bitrate_value >> 2) & 0xFF,
                        ((bitrate_value & 3) << 6) | 0x20, 0u})
    s.push_back(char(byte));
  return s + std::string("\0\0\1\xb8\0\0\0\0", 8);  // and a group of pictures
}

// A sequence extension with these size and bit-rate extensions, frame-rate extension 1/1.
std::string SequenceExtension(int h_ext, int v_ext, unsigned br_ext) {
  std::string s("\0\0\1\xb5\x14", 5);
  for (unsigned byte : {unsigned(0x48 | (h_ext >> 1)), unsigned((h_ext & 1) << 7 | v_ext << 5) | (br_ext >> 7),
                        ((br_ext & 0x7F) << 1) | 1, 0u, 0x20u})
    s.push_back(char(byte));
  return s;
}

MediaInfo ParseMemory(std::string bytes, size_t size = 0) {
  bytes.resize(std::max(size, bytes.size()), '\0');
  MediaInfo m{};
  EXPECT_EQ(ParseMpegVideoMemory(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(), &m), 0);
  return m;
}

std::string Values(const MediaInfo& m) {
  return std::string(m.title) + "|" + m.album + "|" + std::to_string(m.width) + "x" + std::to_string(m.height) + "|" +
         std::to_string(m.video_bitrate) + "|" + std::to_string(m.bitrate) + "|" + std::to_string(m.frequency);
}

TEST(MpegVideoElementary, SizeBitRateAndDurationFromFileSizeAlikeFromFileAndMemory) {
  MediaInfo m = ParseMemory(SequenceHeader(352, 240, 1, 4, 2875), 14375000);
  EXPECT_EQ(Values(m), "||352x240|2875000|0|0");  // the 400 bit/s unit times 1000, as stored
  EXPECT_EQ(m.duration, 100.0f);
  TempDir dir;
  std::string path = dir.File("es.m1v");
  WriteBytes(path, SequenceHeader(352, 240, 1, 4, 2875));
  ASSERT_EQ(truncate(path.c_str(), 14375000), 0);
  MediaInfo f{};
  ASSERT_EQ(ParseMpegVideoFile(path.c_str(), &f), 0);
  EXPECT_EQ(memcmp(&f, &m, sizeof m), 0);
  // A bit rate of 0 gives an infinite duration, kept by the parser; aspect 0 is logged and used.
  orvo::test::LogCapture log;
  EXPECT_TRUE(std::isinf(ParseMemory(SequenceHeader(352, 240, 0, 3, 0), 1000).duration));
  EXPECT_TRUE(log.Contains("invalid aspect_ratio."));
}

TEST(MpegVideoSequenceExtension, OnlyWidthBit13AndOnlyBeforeTheGroupOfPictures) {
  std::string seq = SequenceHeader(720, 480, 2, 4, 1000), gop = seq.substr(12);
  seq.resize(12);
  struct { int h_ext, v_ext; int width, height; } cases[] = {
      {1, 0, 720, 480}, {2, 0, 720 | 0x2000, 480}, {0, 3, 720, 480 | 0x3000}};  // the low bit is ignored
  for (const auto& c : cases) {
    MediaInfo m = ParseMemory(seq + SequenceExtension(c.h_ext, c.v_ext, 1) + gop, 4000);
    EXPECT_EQ(m.width, c.width) << c.h_ext;
    EXPECT_EQ(m.height, c.height) << c.v_ext;
    EXPECT_FLOAT_EQ(m.duration, 4000 * 8.0 / (1000 * 400)) << "duration without the extension bits";
  }
  EXPECT_EQ(ParseMemory(seq + gop + SequenceExtension(2, 3, 0), 200).width, 720);
}

TEST(MpegVideoSearchLimit, NothingAfterTheFirst100000BytesIsSeenAndTheFileIsStillSaved) {
  std::string header = SequenceHeader(352, 288, 1, 3, 2875);
  EXPECT_EQ(ParseMemory(std::string(99999, '\x55') + header, 200000).width, 352);
  TempDir dir;
  std::string path = dir.File("VCD/MPEGAV/MUSIC01.DAT");
  WriteBytes(path, std::string(100000, '\x55') + header);
  orvo::test::LogCapture log;
  MediaInfo m = Filled(FillVcdRecord, path);
  EXPECT_EQ(Values(m), "MUSIC01|MPEGAV|0x0|0|0|0");
  EXPECT_TRUE(log.Contains("couldn't find any valid video."));
  EXPECT_TRUE(log.Contains("Did not find video nor audio. Skip meta info"));
  EXPECT_FALSE(log.Contains("Failed to parse music metadata.")) << "a success with zero values";
  EXPECT_EQ(RemoveVcd(path.c_str()), -1);
}

TEST(MpegVideoStreams, VcdDvdAndElementaryStreamsMadeByFfmpeg) {
  REQUIRE_FFMPEG();
  TempDir dir;
  std::string vcd = dir.File("Disc/AVSEQ01.mpg"), dat = dir.File("Disc/AVSEQ01.DAT"), dvd = dir.File("Disc/dvd.vob");
  ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc=duration=2:size=352x240:rate=30000/1001 "
                     "-f lavfi -i sine=sample_rate=44100:duration=2 -target ntsc-vcd " + vcd));
  ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc=duration=2:size=720x480:rate=30000/1001 "
                     "-f lavfi -i sine=sample_rate=48000:duration=2 -ac 2 -target ntsc-dvd -c:a mp2 -b:a 192k " + dvd));
  std::string riff = std::string("RIFF\0\0\0\0CDXAfmt ", 16) + std::string(36, '\0') + ReadBytes(vcd);
  WriteBytes(dat, riff);
  MediaInfo m = Filled(FillVcdRecord, dat);
  // The VCD bit rate value 2875 (1150 kbit/s) gives the duration.
  EXPECT_EQ(Values(m), "AVSEQ01|Disc|352x240|2875000|224000|44100");
  EXPECT_NEAR(m.duration, riff.size() * 8.0 / 1150000, 1e-3);

  ASSERT_EQ(FillVcdRecord(dvd.c_str(), &m), 0);  // MPEG-2 packet headers
  m.video_bitrate = 0;  // the encoder's own header figure, here and below
  EXPECT_EQ(Values(m).substr(9), "720x480|0|192000|48000");

  std::string es = dir.File("Disc/clip.m1v");
  ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc=duration=1:size=320x240:rate=25 -c:v mpeg1video -b:v 800k -f mpeg1video " + es));
  ASSERT_EQ(FillVcdRecord(es.c_str(), &m), 0);
  m.video_bitrate = 0;
  EXPECT_EQ(Values(m), "clip|Disc|320x240|0|0|0");
}

}  // namespace
