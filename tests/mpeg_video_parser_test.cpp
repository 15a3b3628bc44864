// The MPEG video stream parser and the VCD handler: sequence headers built
// byte by byte, system streams with an audio packet, VCD/DVD files made with
// ffmpeg, and the corpus.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <memory>

#include "formats_testutil.h"
#include "handlers/formats.h"
#include "handlers/handlers.h"
#include "meta/metavideo.h"
#include "platform/media_info.h"
#include "support/log_capture.h"

using namespace formats_test;

namespace {

// Bytes are built in a std::string: GCC 12 warns falsely on byte vectors
// grown piecewise.
std::string SequenceHeader(unsigned width, unsigned height, int aspect, int rate_code, unsigned bitrate_value) {
  std::string s("\0\0\1\xb3", 4);
  s.push_back(static_cast<char>(width >> 4));
  s.push_back(static_cast<char>(((width & 0xF) << 4) | (height >> 8)));
  s.push_back(static_cast<char>(height & 0xFF));
  s.push_back(static_cast<char>((aspect << 4) | rate_code));
  s.push_back(static_cast<char>(bitrate_value >> 10));
  s.push_back(static_cast<char>((bitrate_value >> 2) & 0xFF));
  s.push_back(static_cast<char>(((bitrate_value & 3) << 6) | 0x20));
  s.push_back('\0');
  return s;
}

// A sequence extension with the given size extensions, bit-rate extension
// and frame-rate extension fields.
std::string SequenceExtension(int h_ext, int v_ext, unsigned br_ext, int fr_n, int fr_d) {
  std::string s("\0\0\1\xb5", 4);
  s.push_back('\x14');                                                        // id 1, profile
  s.push_back(static_cast<char>(0x48 | (h_ext >> 1)));                        // level, progressive, chroma
  s.push_back(static_cast<char>(((h_ext & 1) << 7) | (v_ext << 5) | (br_ext >> 7)));
  s.push_back(static_cast<char>(((br_ext & 0x7F) << 1) | 1));
  s.push_back('\0');                                                          // vbv
  s.push_back(static_cast<char>((fr_n << 5) | fr_d));
  return s;
}

std::string Gop() { return std::string("\0\0\1\xb8\0\0\0\0", 8); }

std::vector<uint8_t> Bytes(const std::string& s, size_t size = 0) {
  std::vector<uint8_t> v(s.begin(), s.end());
  if (size > v.size()) v.resize(size, 0);
  return v;
}

MediaInfo ParseMemory(const std::vector<uint8_t>& bytes) {
  MediaInfo m{};
  EXPECT_EQ(ParseMpegVideoMemory(bytes.data(), bytes.size(), &m), 0);
  return m;
}

// A video reader over `bytes`, which must outlive it.
struct Reader {
  explicit Reader(const std::vector<uint8_t>& bytes) : r(new VideoReader) {
    memset(r.get(), 0, sizeof *r);
    ByteReaderAttachMemory(&r->base, bytes.data(), bytes.size());
    r->stream_mode = 1;
  }
  std::unique_ptr<VideoReader> r;
};

TEST(MpegVideoElementary, SizeBitRateAndDurationFromFileSize) {
  std::vector<uint8_t> es = Bytes(SequenceHeader(352, 240, 1, 4, 2875) + Gop(), 14375000);
  MediaInfo m = ParseMemory(es);
  EXPECT_EQ(m.width, 352);
  EXPECT_EQ(m.height, 240);
  EXPECT_EQ(m.video_bitrate, 2875000);  // the 400 bit/s unit times 1000, as stored
  EXPECT_EQ(m.duration, 100.0f);
  EXPECT_EQ(m.bitrate, 0);
  EXPECT_EQ(m.frequency, 0);
  EXPECT_EQ(m.channels, 0);

  TempDir dir;
  std::string path = dir.File("es.m1v");
  WriteBytes(path, Bytes(SequenceHeader(352, 240, 1, 4, 2875) + Gop()));
  ASSERT_EQ(truncate(path.c_str(), 14375000), 0);
  MediaInfo f{};
  ASSERT_EQ(ParseMpegVideoFile(path.c_str(), &f), 0);
  EXPECT_EQ(memcmp(&f, &m, sizeof m), 0);  // file and memory read alike

  // A bit rate of 0 gives an infinite duration, kept by the parser.
  EXPECT_TRUE(std::isinf(ParseMemory(Bytes(SequenceHeader(352, 240, 1, 3, 0) + Gop(), 1000)).duration));
}

TEST(MpegVideoSequenceHeader, FrameRateAndAspectRatioCodes) {
  auto rate_of = [](int code, int aspect) {
    std::vector<uint8_t> b = Bytes(SequenceHeader(720, 576, aspect, code, 1000) + Gop(), 64);
    Reader rd(b);
    VideoInfo v{};
    EXPECT_EQ(ParseSequenceHeader(rd.r.get(), 0, &v), 0);
    return v.frame_rate;
  };
  orvo::test::LogCapture log;
  EXPECT_DOUBLE_EQ(rate_of(4, 2), 30000.0 / 1001);
  EXPECT_EQ(rate_of(8, 2), 60.0);
  EXPECT_EQ(rate_of(9, 2), 0.0);  // 9 to 15 are reserved
  EXPECT_FALSE(log.Contains("invalid aspect_ratio."));
  EXPECT_EQ(rate_of(3, 0), 25.0);  // logged, and used all the same
  EXPECT_TRUE(log.Contains("metavideo.cpp"));
  EXPECT_TRUE(log.Contains("invalid aspect_ratio."));
}

TEST(MpegVideoSequenceExtension, OnlyWidthBit13AndDurationBeforeExtension) {
  std::string seq = SequenceHeader(720, 480, 2, 4, 1000);
  struct Case { int h_ext, v_ext; unsigned width, height; } cases[] = {
      {1, 0, 720, 480},                   // the low size-extension bit is ignored
      {2, 0, 720 | 0x2000, 480},
      {0, 3, 720, 480 | 0x3000},
  };
  for (const Case& c : cases) {
    std::vector<uint8_t> b = Bytes(seq + SequenceExtension(c.h_ext, c.v_ext, 1, 1, 0) + Gop(), 4000);
    Reader rd(b);
    VideoInfo v{};
    ASSERT_EQ(ParseSequenceHeader(rd.r.get(), 0, &v), 0);
    EXPECT_EQ(v.width, c.width) << c.h_ext;
    EXPECT_EQ(v.height, c.height) << c.v_ext;
    EXPECT_EQ(rd.r->stream_mode, 2);
    EXPECT_EQ(v.bitrate_value, 1000u | (1u << 18));
    EXPECT_DOUBLE_EQ(v.frame_rate, 2 * 30000.0 / 1001);
    EXPECT_DOUBLE_EQ(v.duration, 4000 * 8.0 / (1000 * 400));  // without the extension bits
  }
  // An extension after the group of pictures is not read.
  std::vector<uint8_t> late = Bytes(seq + Gop() + SequenceExtension(2, 3, 0, 0, 0), 200);
  Reader rd(late);
  VideoInfo v{};
  ASSERT_EQ(ParseSequenceHeader(rd.r.get(), 0, &v), 0);
  EXPECT_EQ(v.width, 720u);
  EXPECT_EQ(rd.r->stream_mode, 1);
}

TEST(MpegVideoPacketHeader, PayloadOffsetByStreamMode) {
  std::string p("\0\0\1\xc0\0\x20", 6);
  std::vector<uint8_t> pts = Bytes(p + "\xff\xff\x40\x20\x21" + std::string(20, '\x01'));
  std::vector<uint8_t> both = Bytes(p + "\x31" + std::string(20, '\x01'));
  std::vector<uint8_t> none = Bytes(p + "\x0f" + std::string(20, '\x01'));
  EXPECT_EQ(SkipPacketHeader(Reader(pts).r.get(), 0), 6 + 2 + 2 + 5);  // stuffing, buffer size, PTS
  EXPECT_EQ(SkipPacketHeader(Reader(both).r.get(), 0), 6 + 10);       // PTS and DTS
  EXPECT_EQ(SkipPacketHeader(Reader(none).r.get(), 0), 6 + 1);
  std::vector<uint8_t> ext = Bytes(p + std::string("\x81\x80\x05") + std::string(20, '\x01'));
  Reader mpeg2(ext);
  mpeg2.r->stream_mode = 2;
  EXPECT_EQ(SkipPacketHeader(mpeg2.r.get(), 0), 9 + 5);  // header data length
  mpeg2.r->stream_mode = 0;
  EXPECT_EQ(SkipPacketHeader(mpeg2.r.get(), 0), 10);
}

TEST(MpegVideoSearchLimit, NothingAfterTheFirst100000BytesIsSeen) {
  std::string rest = SequenceHeader(352, 288, 1, 3, 2875) + Gop();
  // A prefix starting at 99999 is still found...
  std::vector<uint8_t> edge = Bytes(std::string(99999, '\x55') + rest, 200000);
  EXPECT_EQ(ParseMemory(edge).width, 352);
  // ...one starting at 100000 is not, and the file is recorded with zeros.
  std::vector<uint8_t> beyond = Bytes(std::string(100000, '\x55') + rest, 200000);
  orvo::test::LogCapture log;
  MediaInfo m = ParseMemory(beyond);
  EXPECT_EQ(m.width, 0);
  EXPECT_EQ(m.video_bitrate, 0);
  EXPECT_TRUE(log.Contains("couldn't find any valid video."));
  EXPECT_TRUE(log.Contains("Did not find video nor audio. Skip meta info"));
}

// RIFF header, pack header, a video packet holding the sequence header and an
// audio packet with stuffing, buffer size and time stamp before two MPEG-1
// layer II frames (192 kbit/s, 44100 Hz, single channel).
std::vector<uint8_t> RiffSystemStream() {
  std::string s = "RIFF";
  s += std::string(4, '\0') + "CDXAfmt " + std::string(36, '\0');
  s += std::string("\0\0\1\xba\x21\0\1\0\1\x80\0\1", 12);
  std::string video = SequenceHeader(352, 240, 1, 4, 2875) + Gop();
  s += std::string("\0\0\1\xe0", 4);
  s.push_back('\0');
  s.push_back(static_cast<char>(video.size() + 1));
  s.push_back('\x0f');
  s += video;
  std::string frame("\xff\xfd\xa0\xc0", 4);
  frame += std::string(626 - 4, '\0');
  s += std::string("\0\0\1\xc0\x05\x00", 6);
  s += "\xff\xff";                       // stuffing
  s += "\x40\x20";                       // buffer size field
  s += std::string("\x21\0\1\0\1", 5);   // presentation time stamp
  s += frame + frame;
  return Bytes(s, s.size() + 1000);
}

TEST(MpegVideoSystemStream, RiffVcdTakesAudioFromTheFirstAudioPacket) {
  MediaInfo m = ParseMemory(RiffSystemStream());
  EXPECT_EQ(m.width, 352);
  EXPECT_EQ(m.height, 240);
  EXPECT_EQ(m.video_bitrate, 2875000);
  EXPECT_EQ(m.bitrate, 192000);
  EXPECT_EQ(m.frequency, 44100);
  EXPECT_EQ(m.channels, 3);  // the channel-mode code, as MP3 rows carry it
}

TEST(MpegVideoStreams, VcdDvdAndElementaryStreamsMadeByFfmpeg) {
  REQUIRE_FFMPEG();
  TempDir dir;
  std::string vcd = dir.File("Disc/AVSEQ01.mpg"), dat = dir.File("Disc/AVSEQ01.DAT"), dvd = dir.File("Disc/dvd.vob");
  ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc=duration=2:size=352x240:rate=30000/1001 "
                     "-f lavfi -i sine=sample_rate=44100:duration=2 -target ntsc-vcd " + vcd));
  ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc=duration=2:size=720x480:rate=30000/1001 "
                     "-f lavfi -i sine=sample_rate=48000:duration=2 -ac 2 -target ntsc-dvd -c:a mp2 -b:a 192k " + dvd));
  std::vector<uint8_t> riff = Bytes(std::string("RIFF\0\0\0\0CDXAfmt ", 16) + std::string(36, '\0'));
  std::vector<uint8_t> body = ReadBytes(vcd);
  riff.insert(riff.end(), body.begin(), body.end());
  WriteBytes(dat, riff);

  MediaInfo m;
  ASSERT_EQ(FillVcdRecord(dat.c_str(), &m), 0);
  EXPECT_STREQ(m.title, "AVSEQ01");
  EXPECT_STREQ(m.album, "Disc");
  EXPECT_EQ(m.width, 352);
  EXPECT_EQ(m.height, 240);
  EXPECT_EQ(m.video_bitrate, 2875000);  // the VCD bit rate value 2875 (1150 kbit/s)
  EXPECT_EQ(m.bitrate, 224000);
  EXPECT_EQ(m.frequency, 44100);
  EXPECT_NEAR(m.duration, riff.size() * 8.0 / 1150000, 1e-3);

  ASSERT_EQ(FillVcdRecord(dvd.c_str(), &m), 0);  // MPEG-2 packet headers
  EXPECT_EQ(m.width, 720);
  EXPECT_EQ(m.height, 480);
  EXPECT_EQ(m.bitrate, 192000);
  EXPECT_EQ(m.frequency, 48000);

  // An elementary stream starts with its sequence header and has no audio.
  std::string es = dir.File("Disc/clip.m1v");
  ASSERT_TRUE(Ffmpeg("-f lavfi -i testsrc=duration=1:size=320x240:rate=25 -c:v mpeg1video -b:v 800k -f mpeg1video " + es));
  ASSERT_EQ(FillVcdRecord(es.c_str(), &m), 0);
  EXPECT_EQ(m.width, 320);
  EXPECT_EQ(m.height, 240);
  EXPECT_EQ(m.frequency, 0);
}

TEST(VcdHandler, FileWithoutVideoIsSavedWithDefaultsAndZeros) {
  TempDir dir;
  std::string path = dir.File("VCD/MPEGAV/MUSIC01.DAT");
  WriteBytes(path, std::vector<uint8_t>(5000, 0x42));
  orvo::test::LogCapture log;
  MediaInfo m;
  memset(&m, 0xAB, sizeof m);
  ASSERT_EQ(FillVcdRecord(path.c_str(), &m), 0);
  EXPECT_STREQ(m.title, "MUSIC01");
  EXPECT_STREQ(m.album, "MPEGAV");
  EXPECT_EQ(m.filesize, 5000);
  EXPECT_EQ(m.width, 0);
  EXPECT_EQ(m.duration, 0.0f);
  EXPECT_TRUE(log.Contains("Did not find video nor audio. Skip meta info"));
  EXPECT_FALSE(log.Contains("Failed to parse music metadata."));  // a success with zero values
  EXPECT_EQ(RemoveVcd(path.c_str()), -1);
  EXPECT_TRUE(log.Contains("File exists. Skip remove it from database."));
}

TEST(MpegVideoCorpus, FileAndMemoryAgreeAndSizesMatchTheTools) {
  REQUIRE_CORPUS("mpeg");
  orvo::test::LogCapture quiet;
  std::vector<std::string> files = CorpusFiles("mpeg");
  for (const auto& f : CorpusFiles("video")) files.push_back(f);
  int compared = 0;
  for (const auto& f : files) {
    MediaInfo a{}, b{};
    ASSERT_EQ(ParseMpegVideoFile(f.c_str(), &a), 0) << f;
    std::vector<uint8_t> bytes = ReadBytes(f);
    ParseMpegVideoMemory(bytes.data(), bytes.size(), &b);
    EXPECT_EQ(memcmp(&a, &b, sizeof a), 0) << f;
    double width = Agreed(Reference(Relative(f)), "width");
    if (a.width != 0 && !std::isnan(width)) {
      EXPECT_EQ(a.width, width) << f;
      ++compared;
    }
  }
  EXPECT_GE(compared, 3);
}

}  // namespace
