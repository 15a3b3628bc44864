// The AIFF and FLAC readers and record fillers on headers built byte by byte.
#include <unistd.h>

#include "formats_testutil.h"
#include "meta/aiff_reader.h"

using namespace formats_test;

namespace {

// A positive whole number as an 80-bit extended float.
std::string Extended(uint64_t value) {
  int top = 63 - __builtin_clzll(value);
  return Be(16383 + top, 2) + Be(value << (63 - top), 8);
}

std::string Chunk(const std::string& id, const std::string& body) {
  return id + Be(body.size(), 4) + body + std::string(body.size() % 2, '\0');
}

std::string Comm(int channels, uint32_t frames, int bits, const std::string& rate, const std::string& compression = "") {
  return Chunk("COMM", Be(channels, 2) + Be(frames, 4) + Be(bits, 2) + rate + compression);
}

std::string Form(const std::string& type, const std::string& chunks) {
  return "FORM" + Be(4 + chunks.size(), 4) + type + chunks;
}

// A path in the file's scratch folder.
std::string Scratch(const std::string& relative) {
  static const TempDir dir;
  return dir.File(relative);
}

// The record `fill` makes of `bytes` written to `relative` in the scratch folder, the file then made
// `size` bytes long (sparse).
MediaInfo Fill(const std::string& relative, const std::string& bytes, off_t size = 0,
               int (*fill)(const char*, MediaInfo*) = FillAiffRecord) {
  WriteBytes(Scratch(relative), bytes);
  EXPECT_EQ(size > 0 ? truncate(Scratch(relative).c_str(), size) : 0, 0);
  return Filled(fill, Scratch(relative));
}

// The bits per sample the reader reports, or -1 when it refuses the bytes.
int Bits(const std::string& bytes) {
  AiffHandle h = AiffOpenMemory(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  AiffFormat fmt{};
  return h && AiffGetFormat(h.get(), &fmt) == 1 ? fmt.bits_per_sample : -1;
}

TEST(AiffRecord, PcmValuesAndFileNameDefaults) {
  MediaInfo m = Fill("Songs/take.two.aiff", Form("AIFF", Chunk("ANNO", "abc") + Comm(2, 441000, 16, Extended(44100))));
  EXPECT_EQ(m.duration, 10.0f);
  EXPECT_EQ(m.bitrate, 1411200);
  EXPECT_EQ(m.frequency * 10 + m.channels, 441002);
  EXPECT_EQ(std::string(m.title) + "|" + m.album, "take.two|Songs");
  const uint8_t half[10] = {0x40, 0x0D, 0xAC, 0x45, 0x00, 0, 0, 0, 0, 0};  // exponent 14, the half bit set
  EXPECT_EQ(ExtendedToDouble(half), 22050.5);
}

TEST(AiffCompression, CompressedAifcReplacesBitsPerSample) {
  const std::pair<const char*, int> cases[] = {{"ulaw", 14}, {"ALAW", 13}, {"fl32", 32}, {"sowt", 16}, {"ima4", 16}};
  for (const auto& [type, bits] : cases) EXPECT_EQ(Bits(Form("AIFC", Comm(1, 8000, 16, Extended(8000), type))), bits) << type;
  // An AIFF form never reads a compression type, nor does a short COMM.
  EXPECT_EQ(Bits(Form("AIFF", Comm(1, 8000, 8, Extended(8000), "ulaw"))), 8);
  EXPECT_EQ(Bits(Form("AIFC", Comm(1, 8000, 12, Extended(8000)))), 12);
  EXPECT_EQ(Fill("u/voice.aifc", Form("AIFC", Comm(1, 8000, 8, Extended(8000), "ulaw"))).bitrate, 112000);
}

TEST(AiffChunkWalk, DamageIsRefusedWithoutLoopingOrOverreading) {
  std::string comm = Comm(2, 100, 16, Extended(48000)), cut = Form("AIFF", comm);
  cut.resize(cut.size() - 4);
  const std::pair<const char*, std::string> cases[] = {
      {"no COMM", Form("AIFF", Chunk("ANNO", "abc"))}, {"wrong form type", Form("WAVE", comm)},
      {"zero form size", "FORM" + Be(0, 4) + "AIFF" + comm}, {"not FORM", "RORM" + Form("AIFF", comm).substr(4)},
      {"COMM cut short", cut}, {"COMM of 16 bytes", Form("AIFF", Chunk("COMM", std::string(16, '\0')))},
      {"chunk claiming 4 GiB", Form("AIFF", "SSND" + Be(0xFFFFFFFFu, 4) + comm)}};
  for (const auto& [name, bytes] : cases) EXPECT_EQ(Bits(bytes), -1) << name;
}

TEST(AiffRecord, RateOutOfRangeStoresZerosWithoutOverflow) {
  for (std::string rate : {"\x7f\xff" + std::string(8, '\x01'), "\x7f\xfe\x80" + std::string(7, '\0'),
                           "\xb9\xc2\x80" + std::string(7, '\0')}) {  // the largest exponent, about 1e4932, negative
    MediaInfo m = Fill("bad/rate.aif", Form("AIFF", Comm(2, 1000, 16, rate)));
    EXPECT_EQ(m.frequency + m.bitrate + m.duration, 0) << int(uint8_t(rate[1]));
    EXPECT_EQ(m.channels, 2);
  }
}

TEST(AiffRecord, UnreadableHeaderIsSavedSilentlyWithDefaults) {
  orvo::test::LogCapture log;
  MediaInfo m = Fill("Lost/noise.aif", std::string(64, '\xEE'));
  EXPECT_TRUE(log.messages().empty());
  EXPECT_EQ(std::string(m.title) + "|" + m.album + "|" + std::to_string(m.channels), "noise|Lost|0");
}

// FLAC stream information and Vorbis comments on headers built byte by byte (no audio frames needed).
std::string Le32(size_t v) { return {char(v), char(v >> 8), char(v >> 16), char(v >> 24)}; }

// "fLaC", a 16-bit STREAMINFO block and, unless `untagged`, a VORBIS_COMMENT block.
std::string FlacHeader(uint32_t rate, int channels, uint64_t samples, const std::vector<std::string>& comments,
                       bool untagged = false) {
  std::string b = "fLaC" + std::string(1, untagged ? '\x80' : '\0') + Be(34, 3) + Be(4096, 2) + Be(4096, 2) +
                  Be(0, 6) + Be(uint64_t{rate} << 44 | uint64_t(channels - 1) << 41 | uint64_t{15} << 36 | samples, 8) +
                  std::string(16, '\0');
  if (untagged) return b;
  std::string body = Le32(4) + "test" + Le32(comments.size());
  for (const auto& c : comments) body += Le32(c.size()) + c;
  return b + "\x84" + Be(body.size(), 3) + body;
}

MediaInfo FillFlac(const std::string& relative, const std::string& bytes, off_t size = 0) {
  return Fill(relative, bytes, size, FillFlacRecord);
}

TEST(FlacComments, KeysMatchIgnoringCaseAndEmptyValuesAreSkipped) {
  MediaInfo m = FillFlac("Albums/Song File.flac",
                     FlacHeader(44100, 2, 441000, {"title=Song", "TITLE=", "ARTIST=First", "Artist=Second",
                                                   "ALBUMARTIST=Not the album", "TRACKNUMBER=3/12",
                                                   "DATE=2010-10-11T12:00:00", "GENRE=Rock", "ALBUM="}));
  // A later comment overwrites; "ALBUMARTIST=" is not "ALBUM=", and "ALBUM=" is empty; the year is bound at 16.
  EXPECT_EQ(std::string(m.title) + "|" + m.artist + "|" + m.album + "|" + m.year + "|" + m.genre,
            "Song|Second|Albums|2010-10-11T12:0|Rock");
  EXPECT_EQ(m.track, 3);
  EXPECT_EQ(m.frequency * 10 + m.channels, 441002);
}

TEST(FlacStreamInfo, WholeSecondDurationAndBitRateFromFileSize) {
  const struct { uint32_t rate; uint64_t samples; off_t size; float seconds; int bitrate; } cases[] = {
      {44100, 2646000, 21168000, 60, 2822400}, {10, 19, 1000, 1, 8000},  // 1.9 s counts as 1 s, for the bit rate too
      {0, 1000, 0, 0, 0}, {44100, 22050, 0, 0, 0}};                       // no division by zero rate or seconds
  for (const auto& c : cases) {
    MediaInfo m = FillFlac("f/s.flac", FlacHeader(c.rate, 2, c.samples, {}), c.size);
    EXPECT_EQ(m.duration, c.seconds) << c.rate << " " << c.samples;
    EXPECT_EQ(m.bitrate, c.bitrate) << c.rate << " " << c.samples;
  }
}

TEST(FlacFailures, LoggedAndSavedWithWhatWasRead) {
  orvo::test::LogCapture log;
  MediaInfo m = FillFlac("Mix/junk.flac", std::string(100, '\7'));
  EXPECT_TRUE(log.Contains("Can't get Flac stream info: " + Scratch("Mix/junk.flac") + "."));
  EXPECT_TRUE(log.Contains("Failed to parse music metadata."));
  EXPECT_EQ(std::string(m.title) + "|" + m.album, "junk|Mix");
  m = FillFlac("Mix/untagged.flac", FlacHeader(48000, 1, 96000, {}, true));
  EXPECT_TRUE(log.Contains("Can't get Flac comment tags: " + Scratch("Mix/untagged.flac") + "."));
  EXPECT_EQ(m.frequency, 48000);  // stream values read before the failure stay
  EXPECT_EQ(m.duration, 2.0f);
}

}  // namespace
