// Corpus MP3s against reference.json where our rules and the tools' agree; where ours deliberately
// differ, our rule.
#include "formats_testutil.h"
#include "meta/metaid3.h"

using namespace formats_test;

namespace {

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

TEST_F(Mp3Corpus, XingOrVbriHeaderInReachGivesTheToolsDurationButTheBitRateIsTheFirstFrames) {
  for (const char* name : {"vbr44.mp3", "vbr22.mp3", "vbr16stereo.mp3", "mpeg2_24khz_vbr.mp3", "vbri.mp3",
                           "rare_frames.mp3", "testcase-3star.mp3"}) {
    double seconds = std::strtod(RefText(files_[name].entry, {"duration_s"}).c_str(), nullptr);
    EXPECT_NEAR(files_[name].rec.duration, seconds, seconds * 0.01) << name;
  }
  EXPECT_EQ(files_["vbri.mp3"].rec.bitrate, 160000) << "the first frame's, not the tools' average";
}

TEST_F(Mp3Corpus, ChannelsHoldTheModeCodeNotTheToolsChannelCount) {
  for (const auto& [name, f] : files_) {
    if (f.result == 0) {
      EXPECT_TRUE(RefText(f.entry, {"channels"}) == "1" ? f.rec.channels == 3 : f.rec.channels <= 2) << name;
    }
  }
}

TEST_F(Mp3Corpus, InfoHeaderIsIgnoredSoTheLengthEstimateStays) {
  const CorpusFile& f = files_["toc_many_children.mp3"];
  ASSERT_EQ(RefText(f.entry, {"mpeg", "vbr_header"}), "Info");
  double length = double(std::filesystem::file_size(kMp3Dir + "/toc_many_children.mp3"));
  if (RefText(f.entry, {"id3", "v1"}) == "true") length -= 128;
  EXPECT_NEAR(f.rec.duration, length / (f.rec.bitrate / 1000) * 0.008, 1e-3);
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

// Deliberately unread: after an ID3v2.4 extended header, past or-ed ID3v2.2 sizes, genre numbers
// other than "(n)", and "(n)" in UTF-16.
TEST_F(Mp3Corpus, ExtendedHeaderWideVersion22FramesAndBareOrUtf16GenreNumbersAreNotRead) {
  EXPECT_STREQ(files_["cbr.mp3"].rec.title, "");
  EXPECT_EQ(std::string(files_["id3v2.2.mp3"].rec.artist) + "|" + files_["id3v2.2.mp3"].rec.title, "Shiny Toy Guns|");
  EXPECT_EQ(std::string(files_["rare_frames.mp3"].rec.genre) + files_["apev2-lyricsv2.mp3"].rec.genre, "1335");
  const MediaInfo& vbri = files_["vbri.mp3"].rec;
  EXPECT_EQ(Ascii(vbri.genre, sizeof vbri.genre, vbri.genre_is_utf16), "(3)Dance");
}

}  // namespace
