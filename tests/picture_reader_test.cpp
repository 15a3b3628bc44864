// Picture sizes and EXIF data: built headers, exiftool-written JPEGs, and the corpus against its reference.
#include <sys/stat.h>

#include <array>
#include <map>
#include <regex>

#include "formats_testutil.h"
#include "meta/exif.h"
#include "platform/image_size.h"
#include "platform/media_db.h"
#include "support/reference.h"

namespace {

using namespace formats_test;

using Bytes = std::vector<uint8_t>;

void Put(Bytes& b, std::initializer_list<int> values) {
  for (int v : values) b.push_back(static_cast<uint8_t>(v));
}
void Put(Bytes& b, std::string_view text) { b.insert(b.end(), text.begin(), text.end()); }
void Be16(Bytes& b, unsigned v) { Put(b, {int(v >> 8 & 0xFF), int(v & 0xFF)}); }
void Le16(Bytes& b, unsigned v) { Put(b, {int(v & 0xFF), int(v >> 8 & 0xFF)}); }
void Be32(Bytes& b, uint32_t v) { Be16(b, v >> 16), Be16(b, v & 0xFFFF); }
void Le32(Bytes& b, uint32_t v) { Le16(b, v & 0xFFFF), Le16(b, v >> 16); }
Bytes Cat(Bytes a, const Bytes& b) { return a.insert(a.end(), b.begin(), b.end()), a; }
Bytes Head(const Bytes& b, size_t n) { return Bytes(b.begin(), b.begin() + n); }
Bytes NoSoi(const Bytes& b) { return Bytes(b.begin() + 2, b.end()); }
Bytes With(Bytes b, size_t at, uint8_t v) { return b[at] = v, b; }

// SOI, an APP1 of `appBytes` marker look-alikes, a quantisation table, frame header `sof`, start of scan.
Bytes Jpeg(int width, int height, size_t appBytes = 16, int sof = 0xC0) {
  Bytes b = {0xFF, 0xD8, 0xFF, 0xE1};
  Be16(b, static_cast<unsigned>(appBytes + 2));
  for (size_t i = 0; i < appBytes; ++i) b.push_back(i % 7 == 0 ? 0xFF : 0xC0);
  Put(b, {0xFF, 0xDB, 0, 67}), b.resize(b.size() + 65, 1);
  Put(b, {0xFF, sof, 0, 17, 8});
  Be16(b, height), Be16(b, width);
  Put(b, {3, 1, 0x22, 0, 2, 0x11, 1, 3, 0x11, 1, 0xFF, 0xDA, 0, 12});
  return b;
}
Bytes Png(uint32_t w, uint32_t h, std::string_view chunk = "IHDR") {
  Bytes b = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n', 0, 0, 0, 13};
  Put(b, chunk), Be32(b, w), Be32(b, h), Put(b, {8, 6, 0, 0, 0});
  return b;
}
Bytes Gif(std::string_view magic, unsigned w, unsigned h) {
  Bytes b(magic.begin(), magic.end());
  return Le16(b, w), Le16(b, h), b;
}
Bytes Bmp(uint32_t headerSize, int32_t w, int32_t h) {
  Bytes b = {'B', 'M', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  Le32(b, headerSize);
  if (headerSize == 12) Le16(b, static_cast<unsigned>(w)), Le16(b, static_cast<unsigned>(h));
  else Le32(b, static_cast<uint32_t>(w)), Le32(b, static_cast<uint32_t>(h));
  b.resize(14 + headerSize, 0);
  return b;
}
// Two directory entries; the larger second one must not be taken.
Bytes Ico(int count, int w, int h) {
  Bytes b(6 + 32, 0);
  b[2] = 1, b[4] = static_cast<uint8_t>(count), b[6] = static_cast<uint8_t>(w), b[7] = static_cast<uint8_t>(h);
  b[22] = b[23] = 48;
  return b;
}
// A first directory at `ifd`: an entry of another tag, then `entries` (tag, type, value).
Bytes Tiff(bool little, std::vector<std::array<uint32_t, 3>> entries, uint32_t ifd = 8) {
  Bytes b;
  auto u16 = [&](unsigned v) { little ? Le16(b, v) : Be16(b, v); };
  auto u32 = [&](uint32_t v) { little ? Le32(b, v) : Be32(b, v); };
  Put(b, little ? "II" : "MM"), u16(42), u32(ifd);
  b.resize(ifd, 0);
  u16(static_cast<unsigned>(entries.size() + 1));
  u16(254), u16(4), u32(1), u32(0);
  for (auto [tag, type, value] : entries) {
    u16(tag), u16(type), u32(1);
    type == 3 ? (u16(value), u16(0)) : u32(value);
  }
  u32(0);
  return b;
}
Bytes Psd(int version) {
  Bytes b = {'8', 'B', 'P', 'S', 0, static_cast<uint8_t>(version), 0, 0, 0, 0, 0, 0, 0, 3};
  return Be32(b, 133), Be32(b, 200), b;  // rows, columns
}

// "WxH" or "fail"; a failure must leave the outputs alone.
std::string Size(const Bytes& b, std::string_view ext) {
  int w = -7, h = -7;
  if (ImageSizeFromBytes(b.data(), b.size(), ext, &w, &h) != 0)
    return w == -7 && h == -7 ? "fail" : "fail, but wrote a size";
  return std::to_string(w) + "x" + std::to_string(h);
}

TEST(ImageSize, EachFormatAndItsTrickyLayouts) {
  Bytes jpeg = Jpeg(640, 480, 100);
  size_t sofAt = jpeg.size() - 4 - 19;
  Bytes emptySegments = {0xFF, 0xD8};
  for (int i = 0; i < 20000; ++i) Put(emptySegments, {0xFF, 0xE2, 0, 2});
  Bytes noSize = {0xFF, 0xD8};  // DHT, JPG and DAC lie in the frame range but carry no size
  for (int code : {0xC4, 0xC8, 0xCC}) Put(noSize, {0xFF, code, 0, 8, 8, 0, 9, 0, 9, 0});
  auto le = [](uint32_t w, uint32_t h) { return Tiff(true, {{256, 3, w}, {257, 3, h}}); };
  struct Case { const char* what; Bytes bytes; const char* ext; const char* expected; } cases[] = {
      {"jpeg, 60 KB APP1 before the frame", Jpeg(4032, 3024, 60000), "jpeg", "4032x3024"},
      {"jpeg progressive", Jpeg(1, 65535, 10, 0xC2), "jpe", "1x65535"},
      {"jpeg SOF15, upper-case extension", Jpeg(33, 44, 10, 0xCF), "JPG", "33x44"},
      {"jpeg DHT, JPG, DAC before the frame", Cat(noSize, NoSoi(Jpeg(100, 50))), "jpg", "100x50"},
      {"jpeg fill bytes, RST marker", Cat({0xFF, 0xD8, 0xFF, 0xFF, 0xFF, 0xD0, 0xFF, 0x01}, NoSoi(Jpeg(12, 34))), "jpg",
       "12x34"},
      {"jpeg cut in a segment", Head(jpeg, 50), "jpg", "fail"},
      {"jpeg cut in the frame", Head(jpeg, sofAt + 6), "jpg", "fail"},
      {"jpeg scan before frame", {0xFF, 0xD8, 0xFF, 0xDA, 0, 4, 0, 0, 0xFF, 0xC0, 0, 11, 8, 0, 1, 0, 1}, "jpg", "fail"},
      {"jpeg ends before a frame", {0xFF, 0xD8, 0xFF, 0xD9}, "jpg", "fail"},
      {"jpeg zero segment length", {0xFF, 0xD8, 0xFF, 0xE0, 0, 0, 0xFF, 0xC0}, "jpg", "fail"},
      {"jpeg zero width", Jpeg(0, 480), "jpg", "fail"},
      {"jpeg 20000 empty segments", emptySegments, "jpg", "fail"},
      {"png", Png(331, 90), "png", "331x90"},
      {"png without IHDR first", Png(331, 90, "IDAT"), "png", "fail"},
      {"png cut in IHDR", Head(Png(331, 90), 23), "png", "fail"},
      {"png width over INT_MAX", Png(0x80000000u, 90), "png", "fail"},
      {"gif87a", Gif("GIF87a", 790, 794), "gif", "790x794"},
      {"gif88a", Gif("GIF88a", 790, 794), "gif", "fail"},
      {"bmp info header", Bmp(40, 127, 64), "bmp", "127x64"},
      {"bmp top-down rows", Bmp(124, 127, -64), "bmp", "127x64"},
      {"bmp core header, unsigned 16-bit", Bmp(12, 65535, 1), "bmp", "65535x1"},
      {"bmp negative width", Bmp(40, -5, 10), "bmp", "fail"},
      {"bmp INT32_MIN height", Bmp(40, 5, INT32_MIN), "bmp", "fail"},
      {"bmp header too small", Bmp(8, 5, 5), "bmp", "fail"},
      {"ico first entry", Ico(2, 16, 32), "ico", "16x32"},
      {"ico 0 means 256", Ico(2, 0, 0), "ico", "256x256"},
      {"ico empty directory", Ico(0, 16, 32), "ico", "fail"},
      {"tiff II SHORT", le(1600, 2100), "tif", "1600x2100"},
      {"tiff MM SHORT", Tiff(false, {{256, 3, 1600}, {257, 3, 2100}}), "tif", "1600x2100"},
      {"tiff II LONG, height first", Tiff(true, {{257, 4, 70000}, {256, 4, 80000}}), "tiff", "80000x70000"},
      {"tiff MM LONG and SHORT, far IFD", Tiff(false, {{256, 4, 200}, {257, 3, 133}}, 5000), "tif", "200x133"},
      {"tiff no height", Tiff(true, {{256, 3, 10}}), "tif", "fail"},
      {"tiff ASCII width", Tiff(true, {{256, 2, 10}, {257, 3, 10}}), "tif", "fail"},
      {"tiff IFD beyond the end", With(le(10, 10), 4, 0xF0), "tif", "fail"},
      {"tiff 65000 entries claimed", With(Tiff(false, {{256, 3, 10}}), 8, 0xFF), "tif", "fail"},
      {"tiff sizes before the damage", With(Tiff(false, {{256, 3, 10}, {257, 3, 20}}), 8, 0xFF), "tif", "10x20"},
      {"psd", Psd(1), "psd", "200x133"},
      {"psd unknown version", Psd(3), "psd", "fail"},
      {"gif, no extension", Gif("GIF89a", 5, 6), "", "5x6"},
      {"jpeg named bmp", Jpeg(9, 10), "bmp", "9x10"},
      {"no known magic", Gif("UFO-object-data", 5, 6), "ufo", "fail"},
      {"empty", {}, "jpg", "fail"},
  };
  for (const auto& c : cases) EXPECT_EQ(Size(c.bytes, c.ext), c.expected) << c.what;
}

TEST(ImgResGetOnFiles, ReadsPastTheFirstWindowAndFailsOnOddPathsWithoutHanging) {
  TempDir dir;
  Bytes big = Jpeg(4000, 3000, 40000);  // the frame lies past several read windows
  std::ofstream(dir.File("big exif.JPG"), std::ios::binary).write(reinterpret_cast<const char*>(big.data()), big.size());
  std::ofstream(dir.File("empty.png")).flush();
  ASSERT_EQ(mkfifo(dir.File("pipe.jpg").c_str(), 0600), 0);
  int w = -7, h = -7;
  EXPECT_EQ(ORVOIndexImgResGet(dir.File("big exif.JPG").c_str(), &w, &h), 0);
  EXPECT_EQ(std::to_string(w) + "x" + std::to_string(h), "4000x3000");
  w = h = -7;
  for (const char* odd : {"pipe.jpg", "", "missing.jpg", "empty.png"})
    EXPECT_NE(ORVOIndexImgResGet(dir.File(odd).c_str(), &w, &h), 0) << odd;
  EXPECT_NE(ORVOIndexImgResGet(nullptr, &w, &h), 0);
  EXPECT_EQ(w + h, -14) << "a failure wrote a size";
}

// ReadExifInfo on camera files (against the corpus reference) and on JPEGs written with exiftool.
std::string PicturesDir() { return std::string(ORVO_CORPUS_DIR) + "/pictures"; }

// Every read must succeed with each text ending inside its field.
PhotoInfo ReadFile(const std::string& path) {
  PhotoInfo info = {};
  snprintf(info.path, sizeof info.path, "%s", path.c_str());
  EXPECT_EQ(ReadExifInfo(&info), 0) << path;
  for (const auto& [text, size] : {std::pair<const char*, size_t>{info.make, sizeof info.make},
                                   {info.model, sizeof info.model}, {info.exposure, sizeof info.exposure},
                                   {info.aperture, sizeof info.aperture}, {info.takenDate, sizeof info.takenDate}}) {
    EXPECT_LT(strnlen(text, size), size) << path;
  }
  return info;
}

const char* const kTags[] = {"Make", "IFD1_Make", "Model", "IFD1_Model", "DateTimeOriginal", "DateTimeDigitized",
                             "DateTime", "ISOSpeedRatings", "PixelXDimension", "PixelYDimension", "ExposureTime", "FNumber"};

// The kTags values ("" when absent) of every JPEG the tools read cleanly.
std::vector<std::map<std::string, std::string>> ReferenceJpegs() {
  std::vector<std::map<std::string, std::string>> rows;
  const std::regex jpeg("pictures/.*[.](jpg|jpeg|jpe)", std::regex::icase);
  for (const auto& [path, entry] : ReferenceFiles().items()) {
    if (!std::regex_match(path, jpeg) || !entry.value("diagnostics", nlohmann::json::object()).empty()) continue;
    std::map<std::string, std::string>& row = rows.emplace_back();
    row["path"] = path;
    const nlohmann::json exif = entry.value("exif", nlohmann::json::object());
    for (const char* tag : kTags) {
      const nlohmann::json v = exif.value(tag, nlohmann::json::object()).value("value", nlohmann::json());
      row[tag] = v.is_string() ? v.get<std::string>() : v.is_null() ? "" : v.dump();
    }
  }
  return rows;
}

std::string TrimRight(std::string text) {
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return text;
}

// Every corpus picture, damaged ones too (broken EXIF blocks, other formats, files that only look like
// JPEGs), is sized as the tools size it where they do, and its EXIF read without an overrun.
TEST(PictureCorpus, SizesMatchTheReferenceToolsAndDamagedPicturesReadSafely) {
  auto files = CorpusFiles("pictures");
  if (files.empty()) GTEST_SKIP() << "no corpus at " << ORVO_CORPUS_DIR;
  int compared = 0;
  for (const auto& path : files) {
    std::string entry = Reference("pictures/" + fs::path(path).filename().string());
    std::string refW = RefText(entry, {"width"}), refH = RefText(entry, {"height"});
    ReadFile(path);
    int w = 0, h = 0;
    int rc = ORVOIndexImgResGet(path.c_str(), &w, &h);
    if (refW.empty() || refH.empty()) {
      EXPECT_TRUE(rc != 0 || w * h > 0) << path;
      continue;
    }
    ++compared;
    EXPECT_EQ(rc, 0) << path;
    EXPECT_EQ(std::to_string(w) + "x" + std::to_string(h), refW + "x" + refH) << path;
  }
  EXPECT_GT(compared, 40) << "reference.json changed shape";
}

// The date taken is the original, else the digitised one, else DateTime; IFD1's Make and Model win.
TEST(ExifCorpus, CameraFilesAgreeWithReference) {
  if (!fs::is_directory(PicturesDir())) GTEST_SKIP() << "corpus not present at " << ORVO_CORPUS_DIR;
  int compared = 0;
  for (std::map<std::string, std::string>& value : ReferenceJpegs()) {
    SCOPED_TRACE(value["path"]);
    PhotoInfo info = ReadFile(std::string(ORVO_CORPUS_DIR) + "/" + value["path"]);
    EXPECT_EQ(TrimRight(info.make), value["IFD1_Make"].empty() ? value["Make"] : value["IFD1_Make"]);
    EXPECT_EQ(TrimRight(info.model), value["IFD1_Model"].empty() ? value["Model"] : value["IFD1_Model"]);
    std::string date = value["DateTimeOriginal"];
    if (date.empty()) date = value["DateTimeDigitized"];
    if (date.empty()) date = value["DateTime"];
    EXPECT_EQ(std::string(info.takenDate), date);
    EXPECT_EQ(info.iso, atoi(value["ISOSpeedRatings"].c_str()));
    EXPECT_EQ(info.width, atoi(value["PixelXDimension"].c_str()));
    EXPECT_EQ(info.height, atoi(value["PixelYDimension"].c_str()));
    // Our texts read "1/160 sec." and "f/7.1" where the tools print 1/160 and 7.1.
    if (!value["ExposureTime"].empty()) {
      EXPECT_EQ(std::string(info.exposure), value["ExposureTime"] + " sec.");
    }
    if (!value["FNumber"].empty()) {  // the tools print 14.0 as 14
      EXPECT_EQ(std::string(info.aperture, 2), "f/");
      EXPECT_DOUBLE_EQ(atof(info.aperture + 2), atof(value["FNumber"].c_str()));
    }
    ++compared;
  }
  EXPECT_GT(compared, 25);
}

// A JPEG written with just the tags a case needs, and itself as thumbnail so IFD1 exists.
PhotoInfo Written(const std::string& exiftoolArgs) {
  formats_test::TempDir dir;
  std::string path = dir.File("written.jpg");
  std::string command = "ffmpeg -v error -y -f lavfi -i color=c=red:s=16x16 -frames:v 1 '" + path + "' </dev/null &&"
                        " exiftool -q -q -overwrite_original '-ThumbnailImage<=" + path + "' " + exiftoolArgs + " '" + path + "'";
  EXPECT_EQ(system(command.c_str()), 0) << command;
  return ReadFile(path);
}

// The date taken: original, else digitised, else DateTime; IFD1 (the thumbnail's) comes after IFD0.
TEST(ExifWritten, DatePreferenceAndTheLaterIfdWins) {
  const std::string modify = "-ModifyDate='2001:01:01 01:01:01'", create = " -CreateDate='2002:02:02 02:02:02'";
  EXPECT_STREQ(Written(modify).takenDate, "2001:01:01 01:01:01");
  EXPECT_STREQ(Written(modify + create).takenDate, "2002:02:02 02:02:02");
  EXPECT_STREQ(Written(modify + create + " -DateTimeOriginal='2003:03:03 03:03:03'").takenDate, "2003:03:03 03:03:03");
  EXPECT_STREQ(Written("-IFD0:Make=Alpha -IFD1:Make=Beta").make, "Beta");
}

// Long texts are cut inside their fields, UTF-8 between whole characters; a number is atoi of the text, so
// a list gives its first.
TEST(ExifWritten, LongTextsStayInsideFieldsAndListsGiveFirstNumber) {
  std::string accents;
  for (int i = 0; i < 60; ++i) accents += "\xc3\xa9";
  PhotoInfo info = Written("-Make=" + std::string(120, 'K') + " -Model=Tiny -ISO='100, 200' -ExposureTime=1/250 -FNumber=2.8");
  EXPECT_EQ(std::string(info.make), std::string(sizeof info.make - 1, 'K'));
  EXPECT_EQ(std::string(Written("-Model=" + accents).model), accents.substr(0, 98));
  EXPECT_EQ(info.iso, 100);
  EXPECT_EQ(std::string(info.model) + "|" + info.exposure + "|" + info.aperture, "Tiny|1/250 sec.|f/2.8");
}

}  // namespace
