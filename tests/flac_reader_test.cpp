// FLAC stream information and Vorbis comments, on FLAC headers built byte by
// byte (libFLAC's metadata reader needs no audio frames) and on the corpus.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstring>

#include "formats_testutil.h"
#include "handlers/formats.h"
#include "platform/media_info.h"
#include "support/log_capture.h"

using namespace formats_test;

namespace {

// Built in a std::string: GCC 12 warns falsely on byte vectors grown this way.
void Be(std::string* out, uint64_t v, int bytes) {
  for (int i = bytes - 1; i >= 0; --i) out->push_back(static_cast<char>(v >> (8 * i)));
}
void Le32(std::string* out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out->push_back(static_cast<char>(v >> (8 * i)));
}

// "fLaC", a STREAMINFO block and, when `comments` is given, a VORBIS_COMMENT
// block.
std::vector<uint8_t> FlacHeader(uint32_t rate, int channels, uint64_t samples,
                                const std::vector<std::string>* comments) {
  std::string b = "fLaC";
  b.push_back(comments == nullptr ? '\x80' : '\x00');  // STREAMINFO, last or not
  Be(&b, 34, 3);
  Be(&b, 4096, 2);
  Be(&b, 4096, 2);
  Be(&b, 0, 3);
  Be(&b, 0, 3);
  // 20 bits rate, 3 bits channels-1, 5 bits bps-1, 36 bits total samples.
  uint64_t packed = (uint64_t{rate} << 44) | (uint64_t(channels - 1) << 41) | (uint64_t{15} << 36) | samples;
  Be(&b, packed, 8);
  b.append(16, '\0');  // MD5
  if (comments != nullptr) {
    std::string body;
    Le32(&body, 4);
    body += "test";
    Le32(&body, static_cast<uint32_t>(comments->size()));
    for (const auto& c : *comments) {
      Le32(&body, static_cast<uint32_t>(c.size()));
      body += c;
    }
    b.push_back('\x84');  // last block, VORBIS_COMMENT
    Be(&b, body.size(), 3);
    b += body;
  }
  return std::vector<uint8_t>(b.begin(), b.end());
}

MediaInfo Fill(const std::string& path) {
  MediaInfo info;
  memset(&info, 0xAB, sizeof info);
  EXPECT_EQ(FillFlacRecord(path.c_str(), &info), 0) << path;
  return info;
}

TEST(FlacComments, KeysMatchIgnoringCaseAndEmptyValuesAreSkipped) {
  TempDir dir;
  std::string path = dir.File("Albums/Song File.flac");
  std::vector<std::string> comments = {"title=Song", "TITLE=", "ARTIST=First", "Artist=Second",
                                       "ALBUMARTIST=Not the album", "TRACKNUMBER=3/12", "DATE=2010-10-11T12:00:00",
                                       "GENRE=Rock", "ALBUM="};
  WriteBytes(path, FlacHeader(44100, 2, 441000, &comments));
  MediaInfo m = Fill(path);
  EXPECT_STREQ(m.title, "Song");
  EXPECT_STREQ(m.artist, "Second");   // a later comment overwrites
  EXPECT_STREQ(m.album, "Albums");    // "ALBUMARTIST=" is not "ALBUM=", "ALBUM=" is empty
  EXPECT_EQ(m.track, 3);
  EXPECT_STREQ(m.year, "2010-10-11T12:0");  // bound 16
  EXPECT_STREQ(m.genre, "Rock");
  EXPECT_EQ(m.channels, 2);
  EXPECT_EQ(m.frequency, 44100);
}

TEST(FlacStreamInfo, WholeSecondDurationAndBitRateFromFileSize) {
  TempDir dir;
  std::string path = dir.File("f/minute.flac");
  std::vector<std::string> none;
  WriteBytes(path, FlacHeader(44100, 2, 2646000, &none));
  ASSERT_EQ(truncate(path.c_str(), 21168000), 0);  // sparse: the size is all that counts
  MediaInfo m = Fill(path);
  EXPECT_EQ(m.duration, 60.0f);
  EXPECT_EQ(m.bitrate, 2822400);

  // 1.9 s counts as 1 s, for the bit rate too.
  WriteBytes(path, FlacHeader(10, 1, 19, &none));
  ASSERT_EQ(truncate(path.c_str(), 1000), 0);
  m = Fill(path);
  EXPECT_EQ(m.duration, 1.0f);
  EXPECT_EQ(m.bitrate, 8000);
}

TEST(FlacStreamInfo, ZeroRateOrUnderOneSecondStoresZero) {
  TempDir dir;
  std::string zero = dir.File("f/zero.flac"), short_file = dir.File("f/short.flac");
  std::vector<std::string> none;
  WriteBytes(zero, FlacHeader(0, 2, 1000, &none));
  WriteBytes(short_file, FlacHeader(44100, 1, 22050, &none));
  MediaInfo m = Fill(zero);
  EXPECT_EQ(m.duration, 0.0f);
  EXPECT_EQ(m.bitrate, 0);
  m = Fill(short_file);
  EXPECT_EQ(m.duration, 0.0f);
  EXPECT_EQ(m.bitrate, 0);  // no division by a zero-second duration
}

TEST(FlacFailures, LoggedAndSavedWithWhatWasRead) {
  TempDir dir;
  std::string junk = dir.File("Mix/junk.flac"), untagged = dir.File("Mix/untagged.flac");
  WriteBytes(junk, std::vector<uint8_t>(100, 7));
  WriteBytes(untagged, FlacHeader(48000, 1, 96000, nullptr));
  orvo::test::LogCapture log;
  MediaInfo m = Fill(junk);
  EXPECT_TRUE(log.Contains("Can't get Flac stream info: " + junk + "."));
  EXPECT_TRUE(log.Contains("Failed to parse music metadata."));
  EXPECT_STREQ(m.title, "junk");
  EXPECT_STREQ(m.album, "Mix");
  log.Clear();
  m = Fill(untagged);
  EXPECT_TRUE(log.Contains("Can't get Flac comment tags: " + untagged + "."));
  EXPECT_EQ(m.frequency, 48000);  // stream values read before the failure stay
  EXPECT_EQ(m.duration, 2.0f);
  log.Clear();
  std::string folder = dir.File("d.flac/x");
  MediaInfo scratch{};
  EXPECT_EQ(ReadFlacInfo(fs::path(folder).parent_path().c_str(), &scratch), -1);
  EXPECT_TRUE(log.Contains("Stat file error: "));
}

TEST(FlacCorpus, EveryFileFillsAndMatchesTheToolsWhereTheyAgree) {
  REQUIRE_CORPUS("flac");
  orvo::test::LogCapture quiet;
  int compared = 0;
  for (const auto& f : CorpusFiles("flac")) {
    MediaInfo m = Fill(f);
    std::string ref = Reference(Relative(f));
    double rate = Agreed(ref, "sample_rate");
    if (std::isnan(rate) || m.frequency == 0) continue;  // no stream info for us either
    EXPECT_EQ(m.frequency, rate) << f;
    if (!std::isnan(Agreed(ref, "channels"))) { EXPECT_EQ(m.channels, Agreed(ref, "channels")) << f; }
    // mutagen takes the duration from the same stream information.
    double seconds = ByTool(ref, "duration_s", "mutagen");
    if (!std::isnan(seconds)) { EXPECT_EQ(m.duration, std::floor(seconds + 1e-9)) << f; }
    ++compared;
  }
  EXPECT_GT(compared, 10);
}

}  // namespace
