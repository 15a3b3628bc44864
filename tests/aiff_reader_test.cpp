// The AIFF reader on headers built byte by byte, from memory and from files,
// and the AIFF record filler; then the corpus.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "formats_testutil.h"
#include "handlers/formats.h"
#include "handlers/handlers.h"
#include "meta/aiff_reader.h"
#include "platform/media_info.h"
#include "support/log_capture.h"

using namespace formats_test;

namespace {

// Bytes are built in a std::string: GCC 12 warns falsely on byte vectors
// grown piecewise.
void Be(std::string* out, uint64_t v, int bytes) {
  for (int i = bytes - 1; i >= 0; --i) out->push_back(static_cast<char>(v >> (8 * i)));
}

// A positive whole number as an 80-bit extended float.
std::string Extended(uint64_t value) {
  std::string out;
  if (value == 0) return std::string(10, '\0');
  int top = 63 - __builtin_clzll(value);
  Be(&out, 16383 + top, 2);
  Be(&out, value << (63 - top), 8);
  return out;
}

std::string Chunk(const std::string& id, const std::string& body) {
  std::string out = id;
  Be(&out, body.size(), 4);
  out += body;
  if (body.size() % 2) out.push_back('\0');
  return out;
}

std::string Comm(int channels, uint32_t frames, int bits, const std::string& rate, const std::string& compression = "") {
  std::string body;
  Be(&body, channels, 2);
  Be(&body, frames, 4);
  Be(&body, bits, 2);
  body += rate;
  body += compression;
  return Chunk("COMM", body);
}

std::vector<uint8_t> Form(const std::string& type, const std::string& chunks) {
  std::string out = "FORM";
  Be(&out, 4 + chunks.size(), 4);
  out += type;
  out += chunks;
  return std::vector<uint8_t>(out.begin(), out.end());
}

// Opens built bytes from memory; false when the reader refuses them.
bool Format(const std::vector<uint8_t>& bytes, AiffFormat* fmt, AiffEncoding* enc = nullptr) {
  AiffHandle h = AiffOpenMemory(bytes.data(), bytes.size());
  if (!h) return false;
  EXPECT_EQ(AiffGetFormat(h.get(), fmt), 1);
  if (enc != nullptr) *enc = AiffGetEncoding(h.get());
  return true;
}

MediaInfo Fill(const std::string& path) {
  MediaInfo info;
  memset(&info, 0xAB, sizeof info);
  EXPECT_EQ(FillAiffRecord(path.c_str(), &info), 0) << path;
  return info;
}

TEST(AiffExtendedRate, CommonRatesConvertExactly) {
  for (uint64_t rate : {8000u, 11025u, 44100u, 96000u, 1u}) {
    std::string e = Extended(rate);
    EXPECT_EQ(ExtendedToDouble(reinterpret_cast<const uint8_t*>(e.data())), static_cast<double>(rate));
  }
  // 22050.5: exponent 14, mantissa with the half bit set.
  const uint8_t half[10] = {0x40, 0x0D, 0xAC, 0x45, 0x00, 0, 0, 0, 0, 0};
  EXPECT_EQ(ExtendedToDouble(half), 22050.5);
}

TEST(AiffRecord, PcmValuesAndFileNameDefaults) {
  TempDir dir;
  std::string path = dir.File("Songs/take.two.aiff");
  WriteBytes(path, Form("AIFF", Comm(2, 441000, 16, Extended(44100))));
  MediaInfo m = Fill(path);
  EXPECT_EQ(m.duration, 10.0f);
  EXPECT_EQ(m.bitrate, 1411200);
  EXPECT_EQ(m.frequency, 44100);
  EXPECT_EQ(m.channels, 2);
  EXPECT_STREQ(m.title, "take.two");
  EXPECT_STREQ(m.album, "Songs");
  EXPECT_EQ(m.filesize, static_cast<int64_t>(fs::file_size(path)));
}

TEST(AiffCompression, CompressedAifcReplacesBitsPerSample) {
  struct Case {
    const char* type;
    int bits;
    int segment;
    AiffEncoding encoding;
  } cases[] = {
      {"ulaw", 14, 2, AiffEncoding::kUlaw},         {"ALAW", 13, 2, AiffEncoding::kAlaw},
      {"fl32", 32, 4, AiffEncoding::kFloat32},      {"sowt", 16, 2, AiffEncoding::kPcmLittleEndian},
      {"twos", 16, 2, AiffEncoding::kPcm},          {"ima4", 16, 2, AiffEncoding::kUnknown},
  };
  for (const Case& c : cases) {
    AiffFormat fmt{};
    AiffEncoding enc{};
    ASSERT_TRUE(Format(Form("AIFC", Comm(1, 8000, 16, Extended(8000), c.type)), &fmt, &enc)) << c.type;
    EXPECT_EQ(fmt.bits_per_sample, c.bits) << c.type;
    EXPECT_EQ(fmt.segment_size, c.segment) << c.type;
    EXPECT_EQ(enc, c.encoding) << c.type;
  }
  // An AIFF form never reads a compression type, nor does a short COMM.
  AiffFormat fmt{};
  ASSERT_TRUE(Format(Form("AIFF", Comm(1, 8000, 8, Extended(8000), "ulaw")), &fmt));
  EXPECT_EQ(fmt.bits_per_sample, 8);
  ASSERT_TRUE(Format(Form("AIFC", Comm(1, 8000, 12, Extended(8000))), &fmt));
  EXPECT_EQ(fmt.bits_per_sample, 12);
  EXPECT_EQ(fmt.segment_size, 2);  // rounded up

  TempDir dir;
  std::string path = dir.File("u/voice.aifc");
  WriteBytes(path, Form("AIFC", Comm(1, 8000, 8, Extended(8000), "ulaw")));
  EXPECT_EQ(Fill(path).bitrate, 112000);
}

TEST(AiffChunkWalk, CommFoundAfterOddChunksAndDamageRefused) {
  AiffFormat fmt{};
  std::string comm = Comm(2, 100, 16, Extended(48000));
  ASSERT_TRUE(Format(Form("AIFF", Chunk("ANNO", "abc") + Chunk("NAME", "x") + comm), &fmt));
  EXPECT_EQ(fmt.sample_rate, 48000.0);
  EXPECT_EQ(fmt.sample_frames, 100u);

  EXPECT_FALSE(Format(Form("AIFF", Chunk("ANNO", "abc")), &fmt));           // no COMM
  EXPECT_FALSE(Format(Form("WAVE", comm), &fmt));                           // wrong form type
  std::vector<uint8_t> zero_size = Form("AIFF", comm);
  memset(zero_size.data() + 4, 0, 4);
  EXPECT_FALSE(Format(zero_size, &fmt));
  std::vector<uint8_t> not_form = Form("AIFF", comm);
  not_form[0] = 'R';
  EXPECT_FALSE(Format(not_form, &fmt));
  std::vector<uint8_t> cut = Form("AIFF", comm);
  cut.resize(cut.size() - 4);                                               // COMM body cut short
  EXPECT_FALSE(Format(cut, &fmt));
  std::string short_comm;
  Be(&short_comm, 2, 2);
  EXPECT_FALSE(Format(Form("AIFF", Chunk("COMM", short_comm + std::string(14, '\0'))), &fmt));  // 16 < 18
  // A chunk claiming 4 GiB ends the walk instead of looping or overreading.
  std::string huge = "SSND";
  Be(&huge, 0xFFFFFFFFu, 4);
  EXPECT_FALSE(Format(Form("AIFF", huge + comm), &fmt));
  EXPECT_EQ(AiffGetFormat(nullptr, &fmt), -1);
}

TEST(AiffRecord, RateOutOfRangeStoresZerosWithoutOverflow) {
  TempDir dir;
  std::string inf = dir.File("bad/inf.aif"), huge = dir.File("bad/huge.aif"), neg = dir.File("bad/neg.aif");
  std::string max_exp = "\x7f\xff" + std::string(8, '\x01');
  std::string big_exp = "\x7f\xfe\x80" + std::string(7, '\0');     // about 1e4932
  std::string negative = "\xb9\xc2\x80" + std::string(7, '\0');    // sign bit set
  WriteBytes(inf, Form("AIFF", Comm(2, 1000, 16, max_exp)));
  WriteBytes(huge, Form("AIFF", Comm(2, 1000, 16, big_exp)));
  WriteBytes(neg, Form("AIFF", Comm(2, 1000, 16, negative)));
  for (const auto& p : {inf, huge, neg}) {
    MediaInfo m = Fill(p);
    EXPECT_EQ(m.frequency, 0) << p;
    EXPECT_EQ(m.bitrate, 0) << p;
    EXPECT_EQ(m.duration, 0.0f) << p;
    EXPECT_EQ(m.channels, 2) << p;
  }
}

TEST(AiffRecord, UnreadableHeaderIsSavedSilentlyWithDefaults) {
  TempDir dir;
  std::string path = dir.File("Lost/noise.aif");
  WriteBytes(path, std::vector<uint8_t>(64, 0xEE));
  orvo::test::LogCapture log;
  MediaInfo m = Fill(path);
  EXPECT_TRUE(log.messages().empty());
  EXPECT_STREQ(m.title, "noise");
  EXPECT_STREQ(m.album, "Lost");
  EXPECT_EQ(m.channels, 0);
  EXPECT_EQ(RemoveAiff(path.c_str()), -1);
  EXPECT_TRUE(log.Contains("File exists. Skip remove it from database."));
  EXPECT_FALSE(AiffOpen(path.c_str(), "wb"));  // read modes only
}

TEST(AiffCorpus, FileAndMemoryAgreeAndValuesMatchTheTools) {
  REQUIRE_CORPUS("aiff");
  int compared = 0;
  for (const auto& f : CorpusFiles("aiff")) {
    std::vector<uint8_t> bytes = ReadBytes(f);
    AiffHandle from_file = AiffOpen(f.c_str(), "rb");
    AiffHandle from_memory = AiffOpenMemory(bytes.data(), bytes.size());
    ASSERT_EQ(!from_file, !from_memory) << f;
    MediaInfo m = Fill(f);
    if (!from_file) continue;
    AiffFormat a{}, b{};
    AiffGetFormat(from_file.get(), &a);
    AiffGetFormat(from_memory.get(), &b);
    EXPECT_EQ(memcmp(&a, &b, sizeof a), 0) << f;
    std::string ref = Reference(Relative(f));
    if (!std::isnan(Agreed(ref, "sample_rate"))) { EXPECT_EQ(m.frequency, Agreed(ref, "sample_rate")) << f; }
    if (!std::isnan(Agreed(ref, "channels"))) { EXPECT_EQ(m.channels, Agreed(ref, "channels")) << f; }
    ++compared;
  }
  EXPECT_GT(compared, 10);
}

// The tools refuse this file outright; we read its COMM chunk, and its
// negative rate leaves the audio values at 0 but the channels stored.
TEST(AiffCorpus, InvalidRateFileIsIndexedWhereToolsRefuseIt) {
  std::string f = CorpusDir() + "/aiff/invalid_sample_rate.aiff";
  if (!fs::exists(f)) GTEST_SKIP() << "corpus absent";
  MediaInfo m = Fill(f);
  EXPECT_EQ(m.channels, 1);
  EXPECT_EQ(m.frequency, 0);
  EXPECT_EQ(m.duration, 0.0f);
}

}  // namespace
