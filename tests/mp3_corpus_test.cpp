// Real MP3 files from the shared corpus, read in place and compared with
// what independent tools report in reference.json where our rules and theirs
// agree; where our rules deliberately differ, the test asserts our rule.
#include <dirent.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "meta/metaid3.h"
#include "support/log_capture.h"

namespace {

const std::string kMp3Dir = std::string(ORVO_CORPUS_DIR) + "/mp3";

std::string LoadReference() {
  std::ifstream in(std::string(ORVO_CORPUS_DIR) + "/reference.json");
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// The reference's object for one file, as text: from its key to the next
// file's key.
std::string Entry(const std::string& json, const std::string& file) {
  size_t at = json.find("\n  \"mp3/" + file + "\": {");
  if (at == std::string::npos) return "";
  size_t end = json.find("\n  \"", at + 4);
  return json.substr(at, end == std::string::npos ? std::string::npos : end - at);
}

// The "value" of the object reached by following `keys`; nullopt when it is
// missing, null, or not a string or number.
std::optional<std::string> Value(const std::string& entry, std::initializer_list<const char*> keys) {
  size_t at = 0;
  for (const char* key : keys) {
    at = entry.find(std::string("\"") + key + "\": {", at);
    if (at == std::string::npos) return std::nullopt;
  }
  at = entry.find("\"value\": ", at);
  if (at == std::string::npos) return std::nullopt;
  at += 9;
  if (entry[at] == '"') {
    std::string out;
    for (size_t i = at + 1; i < entry.size() && entry[i] != '"'; ++i) {
      if (entry[i] == '\\') return std::nullopt;  // escaped text is not compared
      out += entry[i];
    }
    return out;
  }
  size_t end = entry.find_first_of(",\n}", at);
  std::string token = entry.substr(at, end - at);
  if (token == "null" || token.empty() || token[0] == '[' || token[0] == '{') return std::nullopt;
  return token;
}

bool Agree(const std::string& entry, std::initializer_list<const char*> keys) {
  size_t at = 0;
  for (const char* key : keys) {
    at = entry.find(std::string("\"") + key + "\": {", at);
    if (at == std::string::npos) return false;
  }
  size_t close = entry.find("\n   }", at);
  size_t agree = entry.find("\"agree\": true", at);
  return agree != std::string::npos && agree < close;
}

// ASCII text of a record field, decoding UTF-16 by its byte-order mark; ""
// when a character is not ASCII.
std::string Ascii(const char* field, size_t size, bool utf16) {
  if (!utf16) {
    for (const char* p = field; *p != '\0'; ++p)
      if (static_cast<unsigned char>(*p) > 0x7F) return "";
    return field;
  }
  std::string out;
  bool little = static_cast<unsigned char>(field[0]) == 0xFF;
  for (size_t i = 2; i + 1 < size; i += 2) {
    unsigned lo = static_cast<unsigned char>(field[i + (little ? 0 : 1)]);
    unsigned hi = static_cast<unsigned char>(field[i + (little ? 1 : 0)]);
    unsigned c = hi << 8 | lo;
    if (c == 0) break;
    if (c > 0x7F) return "";
    out += static_cast<char>(c);
  }
  return out;
}

struct CorpusFile {
  std::string name;
  std::string entry;
  int result;
  MediaInfo rec;
};

class Mp3Corpus : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    files_ = new std::vector<CorpusFile>;
    DIR* dir = opendir(kMp3Dir.c_str());
    if (dir == nullptr) return;
    std::string json = LoadReference();
    while (dirent* e = readdir(dir)) {
      if (e->d_name[0] == '.') continue;
      CorpusFile f;
      f.name = e->d_name;
      f.entry = Entry(json, f.name);
      memset(&f.rec, 0, sizeof f.rec);
      orvo::test::LogCapture quiet;
      f.result = ReadMp3Info((kMp3Dir + "/" + f.name).c_str(), &f.rec);
      files_->push_back(f);
    }
    closedir(dir);
  }
  static void TearDownTestSuite() {
    delete files_;
    files_ = nullptr;
  }
  void SetUp() override {
    if (files_->empty()) GTEST_SKIP() << "no MP3 corpus at " << kMp3Dir;
  }
  static const CorpusFile& File(const std::string& name) {
    for (const CorpusFile& f : *files_)
      if (f.name == name) return f;
    static CorpusFile missing;
    ADD_FAILURE() << name << " is not in the corpus";
    return missing;
  }

  static std::vector<CorpusFile>* files_;
};

std::vector<CorpusFile>* Mp3Corpus::files_ = nullptr;

TEST_F(Mp3Corpus, SampleRateOfEveryIndexedFileMatchesTheTools) {
  int indexed = 0;
  for (const CorpusFile& f : *files_) {
    if (f.result != 0) continue;
    ++indexed;
    std::optional<std::string> rate = Value(f.entry, {"sample_rate"});
    ASSERT_TRUE(rate.has_value()) << f.name << ": indexed, but the tools found no audio";
    EXPECT_EQ(std::to_string(f.rec.frequency), *rate) << f.name;
  }
  EXPECT_GE(indexed, 30);
}

TEST_F(Mp3Corpus, FilesWithoutMpeg1Or2AudioAreRefused) {
  for (const CorpusFile& f : *files_) {
    std::optional<std::string> version = Value(f.entry, {"mpeg", "version"});
    bool no_audio = !Value(f.entry, {"sample_rate"}).has_value();
    if (no_audio || version == "2.5") {
      EXPECT_EQ(f.result, -1) << f.name;
    }
  }
}

// Our frame length rules deliberately differ from the standard's for MPEG-1
// layer I (the product is not taken in 4-byte slots) and for MPEG-2 layer II
// (the layer III factor): such streams are not confirmed.
TEST_F(Mp3Corpus, DeliberateLengthRulesRefuseLayerIAndMpeg2LayerIIStreams) {
  EXPECT_EQ(File("mpeg1_44_1khz.mp1").result, -1);
  EXPECT_EQ(File("mpeg2_22050hz.mp2").result, -1);
  EXPECT_EQ(File("mpeg1_44_1khz.mp2").result, 0) << "MPEG-1 layer II follows the standard";
}

// The record carries the first frame's channel-mode code (3 single channel,
// 0 to 2 the two-channel modes), not the channel count the tools give.
TEST_F(Mp3Corpus, ChannelsHoldTheModeCodeNotTheToolsChannelCount) {
  int checked = 0;
  for (const CorpusFile& f : *files_) {
    std::optional<std::string> count = Value(f.entry, {"channels"});
    if (f.result != 0 || !count) continue;
    if (*count == "1")
      EXPECT_EQ(f.rec.channels, 3) << f.name;
    else
      EXPECT_TRUE(f.rec.channels >= 0 && f.rec.channels <= 2) << f.name << ": " << f.rec.channels;
    ++checked;
  }
  EXPECT_GE(checked, 30);
}

TEST_F(Mp3Corpus, XingOrVbriHeaderInReachGivesTheToolsDuration) {
  for (const char* name : {"vbr44.mp3", "vbr22.mp3", "vbr16stereo.mp3", "mpeg2_24khz_vbr.mp3", "vbri.mp3",
                           "rare_frames.mp3", "testcase-3star.mp3"}) {
    const CorpusFile& f = File(name);
    ASSERT_EQ(f.result, 0) << name;
    double expected = std::stod(Value(f.entry, {"duration_s"}).value_or("0"));
    EXPECT_NEAR(f.rec.duration, expected, expected * 0.01) << name;
  }
}

// An "Info" header is not read, so a CBR file gets the length estimate,
// which counts the leading tag in and leaves an ID3v1 tag out.
TEST_F(Mp3Corpus, InfoHeaderIsIgnoredAndTheLengthEstimateStays) {
  const CorpusFile& f = File("toc_many_children.mp3");
  ASSERT_EQ(f.result, 0);
  EXPECT_EQ(Value(f.entry, {"mpeg", "vbr_header"}), "Info");
  double length = double(std::filesystem::file_size(kMp3Dir + "/toc_many_children.mp3"));
  if (Value(f.entry, {"id3", "v1"}) == "true") length -= 128;
  EXPECT_NEAR(f.rec.duration, length / (f.rec.bitrate / 1000) * 0.008, 1e-3);
}

// A VBR file reports its first frame's bit rate, not the average.
TEST_F(Mp3Corpus, VbrFileReportsTheFirstFrameBitRateNotTheToolsAverage) {
  const CorpusFile& f = File("vbri.mp3");
  ASSERT_EQ(f.result, 0);
  EXPECT_EQ(f.rec.bitrate, 160000);
  EXPECT_NE(std::to_string(f.rec.bitrate), Value(f.entry, {"bitrate"}).value_or(""));
}

TEST_F(Mp3Corpus, TagTextMatchesTheToolsWhereWeReadIt) {
  int compared = 0;
  for (const CorpusFile& f : *files_) {
    if (f.result != 0) continue;
    struct Field {
      const char* key;
      const char* text;
      size_t size;
      int32_t utf16;
    } fields[] = {{"title", f.rec.title, sizeof f.rec.title, f.rec.title_is_utf16},
                  {"artist", f.rec.artist, sizeof f.rec.artist, f.rec.artist_is_utf16},
                  {"album", f.rec.album, sizeof f.rec.album, f.rec.album_is_utf16}};
    for (const Field& field : fields) {
      std::optional<std::string> theirs = Value(f.entry, {"tags", field.key});
      if (!theirs || !Agree(f.entry, {"tags", field.key})) continue;
      std::string ours = Ascii(field.text, field.size, field.utf16 != 0);
      if (ours.empty()) continue;
      // ID3v1 text is cut at 30 bytes; trailing blanks are not compared.
      std::string expected = *theirs;
      if (ours.size() == 30 && expected.size() > 30) expected.resize(30);
      while (!expected.empty() && expected.back() == ' ') expected.pop_back();
      while (!ours.empty() && ours.back() == ' ') ours.pop_back();
      EXPECT_EQ(ours, expected) << f.name << " " << field.key;
      ++compared;
    }
  }
  EXPECT_GE(compared, 30);
}

// Tags the tools read but our rules deliberately do not.
TEST_F(Mp3Corpus, ExtendedHeaderAndWideVersion22FramesAreNotRead) {
  // The ID3v2.4 extended header is not recognised: the walk stops at once.
  EXPECT_STREQ(File("cbr.mp3").rec.title, "");
  // ID3v2.2 sizes are or-ed: the walk loses its way before the title.
  const CorpusFile& v22 = File("id3v2.2.mp3");
  EXPECT_STREQ(v22.rec.artist, "Shiny Toy Guns");
  EXPECT_STREQ(v22.rec.title, "");
}

// Only "(n)" is a genre number: a bare number is text.
TEST_F(Mp3Corpus, BareGenreNumbersStayText) {
  EXPECT_STREQ(File("rare_frames.mp3").rec.genre, "13");
  EXPECT_STREQ(File("apev2-lyricsv2.mp3").rec.genre, "35");
}

// The parentheses are looked for in the raw bytes, where UTF-16 text ends
// after its first character: a UTF-16 "(3)Dance" is kept as text.
TEST_F(Mp3Corpus, Utf16GenreNumbersAreKeptAsText) {
  const CorpusFile& f = File("vbri.mp3");
  ASSERT_EQ(f.result, 0);
  EXPECT_EQ(f.rec.genre_is_utf16, 1);
  EXPECT_EQ(Ascii(f.rec.genre, sizeof f.rec.genre, true), "(3)Dance");
}

}  // namespace
