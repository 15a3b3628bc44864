// ReadExifInfo on real camera files (against what independent tools report
// in the corpus reference) and on JPEGs written here with exiftool.

#include <gtest/gtest.h>
#include <strings.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "meta/exif.h"
#include "support/log_capture.h"

namespace fs = std::filesystem;

namespace {

// Just enough JSON to read the corpus reference: objects, arrays, strings,
// and scalars kept as their source text (so 14.0 stays "14.0").
struct Json {
  enum Kind { kNull, kScalar, kString, kArray, kObject } kind = kNull;
  std::string text;
  std::vector<Json> items;
  std::map<std::string, Json> members;

  const Json& operator[](const std::string& key) const {
    static const Json none;
    auto found = members.find(key);
    return found == members.end() ? none : found->second;
  }
};

class JsonReader {
 public:
  explicit JsonReader(const std::string& text) : text_(text) {}
  Json Parse() {
    Json value;
    SkipBlanks();
    if (pos_ >= text_.size()) return value;
    char c = text_[pos_];
    if (c == '{') {
      value.kind = Json::kObject;
      ++pos_;
      while (SkipBlanks(), pos_ < text_.size() && text_[pos_] != '}') {
        std::string key = ParseString();
        SkipBlanks();
        ++pos_;  // ':'
        value.members[key] = Parse();
        SkipBlanks();
        if (pos_ < text_.size() && text_[pos_] == ',') ++pos_;
      }
      ++pos_;
    } else if (c == '[') {
      value.kind = Json::kArray;
      ++pos_;
      while (SkipBlanks(), pos_ < text_.size() && text_[pos_] != ']') {
        value.items.push_back(Parse());
        SkipBlanks();
        if (pos_ < text_.size() && text_[pos_] == ',') ++pos_;
      }
      ++pos_;
    } else if (c == '"') {
      value.kind = Json::kString;
      value.text = ParseString();
    } else {
      size_t start = pos_;
      while (pos_ < text_.size() && !strchr(",]} \n\r\t", text_[pos_])) ++pos_;
      value.text = text_.substr(start, pos_ - start);
      value.kind = value.text == "null" ? Json::kNull : Json::kScalar;
      if (value.kind == Json::kNull) value.text.clear();
    }
    return value;
  }

 private:
  void SkipBlanks() {
    while (pos_ < text_.size() && isspace(static_cast<unsigned char>(text_[pos_]))) ++pos_;
  }
  std::string ParseString() {
    std::string out;
    ++pos_;  // opening quote
    while (pos_ < text_.size() && text_[pos_] != '"') {
      if (text_[pos_] == '\\' && pos_ + 1 < text_.size()) {
        ++pos_;
        if (text_[pos_] == 'u') {
          pos_ += 4;  // the reference's names and values we compare are ASCII
          out += '?';
        } else {
          out += text_[pos_] == 'n' ? '\n' : text_[pos_];
        }
      } else {
        out += text_[pos_];
      }
      ++pos_;
    }
    ++pos_;
    return out;
  }
  const std::string& text_;
  size_t pos_ = 0;
};

std::string CorpusDir() { return std::string(ORVO_CORPUS_DIR) + "/pictures"; }

std::string TrimRight(std::string text) {
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return text;
}

PhotoInfo ReadFile(const std::string& path) {
  PhotoInfo info = {};
  snprintf(info.path, sizeof info.path, "%s", path.c_str());
  EXPECT_EQ(ReadExifInfo(&info), 0) << path;
  return info;
}

bool IsExifCarrier(const std::string& name) {
  std::string ext = fs::path(name).extension().string();
  return strcasecmp(ext.c_str(), ".jpg") == 0 || strcasecmp(ext.c_str(), ".jpeg") == 0 ||
         strcasecmp(ext.c_str(), ".jpe") == 0;
}

// A file whose EXIF block the reference tools themselves reported as broken.
bool IsDamaged(const Json& entry) {
  const Json& diagnostics = entry["diagnostics"];
  if (diagnostics["exiftool"].kind != Json::kNull) return true;
  for (const Json& line : diagnostics["ffprobe"].items) {
    if (line.text.find("EXIF") != std::string::npos || line.text.find("JPEG data") != std::string::npos) {
      return true;
    }
  }
  return false;
}

class ExifCorpus : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    std::ifstream in(std::string(ORVO_CORPUS_DIR) + "/reference.json");
    if (!in) return;
    std::stringstream text;
    text << in.rdbuf();
    std::string json = text.str();
    reference_ = std::make_unique<Json>(JsonReader(json).Parse());
  }
  void SetUp() override {
    if (!reference_ || !fs::is_directory(CorpusDir())) GTEST_SKIP() << "corpus not present at " << ORVO_CORPUS_DIR;
  }
  static std::unique_ptr<Json> reference_;
};
std::unique_ptr<Json> ExifCorpus::reference_;

// Each camera field as the reference tools read it; the date taken must be
// the original date, else the digitised one, else DateTime.
TEST_F(ExifCorpus, CameraFilesAgreeWithReference) {
  int compared = 0;
  for (const auto& [key, entry] : (*reference_)["files"].members) {
    if (key.rfind("pictures/", 0) != 0 || !IsExifCarrier(key) || IsDamaged(entry)) continue;
    SCOPED_TRACE(key);
    PhotoInfo info = ReadFile(std::string(ORVO_CORPUS_DIR) + "/" + key);
    const Json& exif = entry["exif"];
    auto value = [&](const char* tag) { return exif[tag]["value"]; };

    EXPECT_EQ(TrimRight(info.make), value("Make").text);
    EXPECT_EQ(TrimRight(info.model), value("Model").text);
    std::string expectedDate = value("DateTimeOriginal").text;
    if (expectedDate.empty()) expectedDate = value("DateTimeDigitized").text;
    if (expectedDate.empty()) expectedDate = value("DateTime").text;
    EXPECT_EQ(std::string(info.takenDate), expectedDate);
    EXPECT_EQ(info.iso, atoi(value("ISOSpeedRatings").text.c_str()));
    EXPECT_EQ(info.width, atoi(value("PixelXDimension").text.c_str()));
    EXPECT_EQ(info.height, atoi(value("PixelYDimension").text.c_str()));
    // libexif renders "1/160 sec." and "f/7.1" where the tools print 1/160 and 7.1.
    if (value("ExposureTime").kind != Json::kNull) {
      EXPECT_EQ(std::string(info.exposure), value("ExposureTime").text + " sec.");
    }
    if (value("FNumber").kind != Json::kNull) {
      EXPECT_EQ(std::string(info.aperture), "f/" + value("FNumber").text);
    }
    ++compared;
  }
  EXPECT_GT(compared, 25);
}

// Damaged EXIF blocks, non-JPEG pictures and files that only look like
// JPEGs must come back cleanly with every text ending inside its field.
TEST_F(ExifCorpus, EveryPictureReadsWithoutOverrun) {
  for (const auto& file : fs::directory_iterator(CorpusDir())) {
    SCOPED_TRACE(file.path().string());
    PhotoInfo info = ReadFile(file.path().string());
    EXPECT_LT(strnlen(info.make, sizeof info.make), sizeof info.make);
    EXPECT_LT(strnlen(info.model, sizeof info.model), sizeof info.model);
    EXPECT_LT(strnlen(info.exposure, sizeof info.exposure), sizeof info.exposure);
    EXPECT_LT(strnlen(info.aperture, sizeof info.aperture), sizeof info.aperture);
    EXPECT_LT(strnlen(info.takenDate, sizeof info.takenDate), sizeof info.takenDate);
  }
}

// A PNG carries no EXIF for the loader: the record must come back untouched.
TEST_F(ExifCorpus, PictureWithoutExifLeavesRecordUnchanged) {
  PhotoInfo info = {};
  snprintf(info.path, sizeof info.path, "%s/PNG.png", CorpusDir().c_str());
  snprintf(info.make, sizeof info.make, "kept");
  info.width = 7;
  PhotoInfo before = info;
  EXPECT_EQ(ReadExifInfo(&info), 0);
  EXPECT_EQ(memcmp(&before, &info, sizeof info), 0);
}

// JPEGs written in the test, so each case holds exactly the tags it needs.
class ExifWritten : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    char pattern[] = "/tmp/exif_reader_test.XXXXXX";
    if (mkdtemp(pattern) == nullptr) return;
    dir_ = pattern;
    std::string command = "ffmpeg -v error -y -f lavfi -i color=c=red:s=16x16 -frames:v 1 '" + dir_ +
                          "/base.jpg' </dev/null";
    ready_ = system(command.c_str()) == 0 && system("exiftool -ver >/dev/null 2>&1") == 0;
  }
  static void TearDownTestSuite() {
    if (!dir_.empty()) fs::remove_all(dir_);
  }
  void SetUp() override {
    if (!ready_) GTEST_SKIP() << "ffmpeg or exiftool not available";
  }
  // A copy of the base JPEG with the exiftool arguments applied.
  static std::string Write(const std::string& name, const std::string& exiftoolArgs) {
    std::string path = dir_ + "/" + name;
    fs::copy_file(dir_ + "/base.jpg", path, fs::copy_options::overwrite_existing);
    std::string command = "exiftool -q -q -overwrite_original " + exiftoolArgs + " '" + path + "' >/dev/null";
    EXPECT_EQ(system(command.c_str()), 0) << command;
    return path;
  }
  static std::string dir_;
  static bool ready_;
};
std::string ExifWritten::dir_;
bool ExifWritten::ready_ = false;

TEST_F(ExifWritten, DatePreferenceOriginalThenDigitizedThenDateTime) {
  PhotoInfo only = ReadFile(Write("modify.jpg", "-ModifyDate='2001:01:01 01:01:01'"));
  EXPECT_STREQ(only.takenDate, "2001:01:01 01:01:01");

  PhotoInfo two = ReadFile(
      Write("two.jpg", "-ModifyDate='2001:01:01 01:01:01' -CreateDate='2002:02:02 02:02:02'"));
  EXPECT_STREQ(two.takenDate, "2002:02:02 02:02:02");

  PhotoInfo three = ReadFile(Write("three.jpg",
                                   "-ModifyDate='2001:01:01 01:01:01' -CreateDate='2002:02:02 02:02:02' "
                                   "-DateTimeOriginal='2003:03:03 03:03:03'"));
  EXPECT_STREQ(three.takenDate, "2003:03:03 03:03:03");
}

// The thumbnail directory comes after IFD0 in the walk; its Make wins.
TEST_F(ExifWritten, LaterIfdOverwritesEarlier) {
  std::string thumb = dir_ + "/base.jpg";
  PhotoInfo info =
      ReadFile(Write("ifd1.jpg", "'-ThumbnailImage<=" + thumb + "' -IFD0:Make=Alpha -IFD1:Make=Beta"));
  EXPECT_STREQ(info.make, "Beta");
}

// Texts longer than their fields are cut inside them; a neighbour field
// written after them keeps its own value. Numbers come from atoi of the
// rendered text, so a list gives its first value.
TEST_F(ExifWritten, LongTextsStayInsideFieldsAndListsGiveFirstNumber) {
  std::string longMake(120, 'K');
  PhotoInfo info = ReadFile(Write("long.jpg", "-Make=" + longMake + " -Model=Tiny -ISO='100, 200' "
                                  "-ExposureTime=1/250 -FNumber=2.8"));
  EXPECT_EQ(std::string(info.make), std::string(sizeof info.make - 1, 'K'));
  EXPECT_STREQ(info.model, "Tiny");
  EXPECT_EQ(info.iso, 100);
  EXPECT_STREQ(info.exposure, "1/250 sec.");
  EXPECT_STREQ(info.aperture, "f/2.8");
}

TEST(ExifArguments, MissingFileIsNotAnErrorAndNullRecordIs) {
  PhotoInfo info = {};
  snprintf(info.path, sizeof info.path, "/nonexistent/dir/picture.jpg");
  EXPECT_EQ(ReadExifInfo(&info), 0);
  EXPECT_EQ(info.make[0], '\0');

  orvo::test::LogCapture log;
  EXPECT_EQ(ReadExifInfo(nullptr), -1);
  EXPECT_TRUE(log.Contains("exif.cpp"));
  EXPECT_TRUE(log.Contains("Bad parameter."));
}

}  // namespace
