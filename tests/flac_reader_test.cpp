// FLAC stream information and Vorbis comments on headers built byte by byte (no audio frames needed).
#include <unistd.h>

#include "formats_testutil.h"

using namespace formats_test;

namespace {

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

// The record of `bytes` written to `relative`, the file then made `size` bytes long (sparse).
MediaInfo Fill(const TempDir& dir, const std::string& relative, const std::string& bytes, off_t size = 0) {
  std::string path = dir.File(relative);
  WriteBytes(path, bytes);
  EXPECT_EQ(size > 0 ? truncate(path.c_str(), size) : 0, 0);
  return Filled(FillFlacRecord, path);
}

TEST(FlacComments, KeysMatchIgnoringCaseAndEmptyValuesAreSkipped) {
  TempDir dir;
  MediaInfo m = Fill(dir, "Albums/Song File.flac",
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
  TempDir dir;
  const struct { uint32_t rate; uint64_t samples; off_t size; float seconds; int bitrate; } cases[] = {
      {44100, 2646000, 21168000, 60, 2822400}, {10, 19, 1000, 1, 8000},  // 1.9 s counts as 1 s, for the bit rate too
      {0, 1000, 0, 0, 0}, {44100, 22050, 0, 0, 0}};                       // no division by zero rate or seconds
  for (const auto& c : cases) {
    MediaInfo m = Fill(dir, "f/s.flac", FlacHeader(c.rate, 2, c.samples, {}), c.size);
    EXPECT_EQ(m.duration, c.seconds) << c.rate << " " << c.samples;
    EXPECT_EQ(m.bitrate, c.bitrate) << c.rate << " " << c.samples;
  }
}

TEST(FlacFailures, LoggedAndSavedWithWhatWasRead) {
  TempDir dir;
  orvo::test::LogCapture log;
  MediaInfo m = Fill(dir, "Mix/junk.flac", std::string(100, '\7'));
  EXPECT_TRUE(log.Contains("Can't get Flac stream info: " + dir.File("Mix/junk.flac") + "."));
  EXPECT_TRUE(log.Contains("Failed to parse music metadata."));
  EXPECT_EQ(std::string(m.title) + "|" + m.album, "junk|Mix");
  m = Fill(dir, "Mix/untagged.flac", FlacHeader(48000, 1, 96000, {}, true));
  EXPECT_TRUE(log.Contains("Can't get Flac comment tags: " + dir.File("Mix/untagged.flac") + "."));
  EXPECT_EQ(m.frequency, 48000);  // stream values read before the failure stay
  EXPECT_EQ(m.duration, 2.0f);
}

}  // namespace
