#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <tuple>
#include <vector>

#include "platform/image_size.h"
#include "platform/media_db.h"

namespace fs = std::filesystem;

namespace {

using Bytes = std::vector<uint8_t>;

void Put(Bytes& b, std::initializer_list<int> values) {
  for (int v : values) b.push_back(static_cast<uint8_t>(v));
}
void Put(Bytes& b, std::string_view text) { b.insert(b.end(), text.begin(), text.end()); }
void Be16(Bytes& b, unsigned v) { Put(b, {int(v >> 8 & 0xFF), int(v & 0xFF)}); }
void Le16(Bytes& b, unsigned v) { Put(b, {int(v & 0xFF), int(v >> 8 & 0xFF)}); }
void Be32(Bytes& b, uint32_t v) { Be16(b, v >> 16), Be16(b, v & 0xFFFF); }
void Le32(Bytes& b, uint32_t v) { Le16(b, v & 0xFFFF), Le16(b, v >> 16); }

// Returns "WxH" or "fail", so a wrong size and a failure read clearly.
std::string Size(const Bytes& b, std::string_view ext) {
  int w = -7, h = -7;
  if (ImageSizeFromBytes(b.data(), b.size(), ext, &w, &h) != 0) {
    EXPECT_EQ(w, -7) << "width written on failure";
    EXPECT_EQ(h, -7) << "height written on failure";
    return "fail";
  }
  return std::to_string(w) + "x" + std::to_string(h);
}

// A JPEG up to its frame header: SOI, an APP1 segment of `appBytes` payload
// (where a camera puts EXIF and a thumbnail), a quantisation table, then the
// frame header `sof` (0xC0 baseline, 0xC2 progressive, ...).
Bytes Jpeg(int width, int height, size_t appBytes = 16, int sof = 0xC0) {
  Bytes b;
  Put(b, {0xFF, 0xD8, 0xFF, 0xE1});
  Be16(b, static_cast<unsigned>(appBytes + 2));
  for (size_t i = 0; i < appBytes; ++i) b.push_back(i % 7 == 0 ? 0xFF : 0xC0);  // marker look-alikes
  Put(b, {0xFF, 0xDB});
  Be16(b, 67);
  b.resize(b.size() + 65, 1);
  Put(b, {0xFF, sof});
  Be16(b, 17);
  Put(b, {8});
  Be16(b, height);
  Be16(b, width);
  Put(b, {3, 1, 0x22, 0, 2, 0x11, 1, 3, 0x11, 1});
  Put(b, {0xFF, 0xDA, 0, 12});  // start of scan: pixel data would follow
  return b;
}

TEST(JpegSize, FrameIsFoundPastLargeSegmentsAndInEveryFrameKind) {
  EXPECT_EQ(Size(Jpeg(640, 480), "jpg"), "640x480");
  EXPECT_EQ(Size(Jpeg(4032, 3024, 60000), "jpeg"), "4032x3024");
  EXPECT_EQ(Size(Jpeg(1, 65535, 10, 0xC2), "jpe"), "1x65535");
  EXPECT_EQ(Size(Jpeg(33, 44, 10, 0xC1), "JPG"), "33x44");
  EXPECT_EQ(Size(Jpeg(33, 44, 10, 0xCF), "jpg"), "33x44");
}

TEST(JpegSize, MarkersThatAreNotFramesAreNotTakenForOne) {
  // DHT (C4), JPG (C8) and DAC (CC) lie in the frame range but carry no size.
  for (int code : {0xC4, 0xC8, 0xCC}) {
    Bytes b = {0xFF, 0xD8, 0xFF, static_cast<uint8_t>(code), 0, 8, 8, 0, 9, 0, 9, 0};
    Bytes frame = Jpeg(100, 50);
    b.insert(b.end(), frame.begin() + 2, frame.end());
    EXPECT_EQ(Size(b, "jpg"), "100x50") << std::hex << code;
  }
}

TEST(JpegSize, FillBytesAndStandaloneMarkersAreSkipped) {
  Bytes b = {0xFF, 0xD8, 0xFF, 0xFF, 0xFF, 0xD0, 0xFF, 0x01};
  Bytes frame = Jpeg(12, 34);
  b.insert(b.end(), frame.begin() + 2, frame.end());
  EXPECT_EQ(Size(b, "jpg"), "12x34");
}

TEST(JpegSize, DamagedStreamsFailWithoutReadingPastTheEnd) {
  Bytes good = Jpeg(640, 480, 100);
  size_t sofAt = good.size() - 4 - 19;
  for (size_t cut : {size_t{0}, size_t{1}, size_t{3}, size_t{50}, sofAt, sofAt + 6}) {
    Bytes b(good.begin(), good.begin() + cut);
    EXPECT_EQ(Size(b, "jpg"), "fail") << "cut at " << cut;
  }
  Bytes scanFirst = {0xFF, 0xD8, 0xFF, 0xDA, 0, 4, 0, 0, 0xFF, 0xC0, 0, 11, 8, 0, 1, 0, 1};
  EXPECT_EQ(Size(scanFirst, "jpg"), "fail");
  Bytes ended = {0xFF, 0xD8, 0xFF, 0xD9};
  EXPECT_EQ(Size(ended, "jpg"), "fail");
  Bytes zeroLength = {0xFF, 0xD8, 0xFF, 0xE0, 0, 0, 0xFF, 0xC0};
  EXPECT_EQ(Size(zeroLength, "jpg"), "fail");
  EXPECT_EQ(Size(Jpeg(0, 480), "jpg"), "fail") << "a zero width is no size";
  // Thousands of empty segments end the walk at its bound.
  Bytes loop = {0xFF, 0xD8};
  for (int i = 0; i < 20000; ++i) Put(loop, {0xFF, 0xE2, 0, 2});
  EXPECT_EQ(Size(loop, "jpg"), "fail");
}

TEST(PngSize, ReadsTheHeaderChunkOnly) {
  Bytes b = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n', 0, 0, 0, 13};
  Put(b, "IHDR");
  Be32(b, 331);
  Be32(b, 90);
  Put(b, {8, 6, 0, 0, 0});
  EXPECT_EQ(Size(b, "png"), "331x90");
  Bytes other = b;
  std::copy_n("IDAT", 4, other.begin() + 12);
  EXPECT_EQ(Size(other, "png"), "fail");
  EXPECT_EQ(Size(Bytes(b.begin(), b.begin() + 23), "png"), "fail");
  Bytes huge = b;
  huge[16] = 0x80;  // 2^31 and more does not fit the record's int
  EXPECT_EQ(Size(huge, "png"), "fail");
}

TEST(GifSize, ReadsTheLogicalScreen) {
  Bytes b;
  Put(b, "GIF89a");
  Le16(b, 790);
  Le16(b, 794);
  EXPECT_EQ(Size(b, "gif"), "790x794");
  b[4] = '7';
  EXPECT_EQ(Size(b, "gif"), "790x794");
  b[4] = '8';
  EXPECT_EQ(Size(b, "gif"), "fail");
}

Bytes Bmp(uint32_t headerSize, int32_t w, int32_t h) {
  Bytes b;
  Put(b, "BM");
  b.resize(14, 0);
  Le32(b, headerSize);
  if (headerSize == 12) {
    Le16(b, static_cast<unsigned>(w));
    Le16(b, static_cast<unsigned>(h));
  } else {
    Le32(b, static_cast<uint32_t>(w));
    Le32(b, static_cast<uint32_t>(h));
  }
  b.resize(14 + headerSize, 0);
  return b;
}

TEST(BmpSize, InfoAndCoreHeadersAndTopDownRows) {
  EXPECT_EQ(Size(Bmp(40, 127, 64), "bmp"), "127x64");
  EXPECT_EQ(Size(Bmp(124, 127, -64), "bmp"), "127x64") << "top-down rows";
  EXPECT_EQ(Size(Bmp(12, 300, 200), "bmp"), "300x200") << "core header has 16-bit sizes";
  EXPECT_EQ(Size(Bmp(12, 65535, 1), "bmp"), "65535x1") << "core sizes are unsigned";
  EXPECT_EQ(Size(Bmp(40, -5, 10), "bmp"), "fail");
  EXPECT_EQ(Size(Bmp(40, 5, INT32_MIN), "bmp"), "fail");
  EXPECT_EQ(Size(Bmp(8, 5, 5), "bmp"), "fail") << "no header is that small";
}

TEST(IcoSize, FirstEntryWithZeroMeaning256) {
  Bytes b = {0, 0, 1, 0, 2, 0, 16, 32, 0, 0};
  b.resize(6 + 32, 0);
  b[22] = 48;  // a second, larger entry must not be taken
  EXPECT_EQ(Size(b, "ico"), "16x32");
  b[6] = 0;
  b[7] = 0;
  EXPECT_EQ(Size(b, "ico"), "256x256");
  b[4] = 0;
  EXPECT_EQ(Size(b, "ico"), "fail") << "an empty directory has no first entry";
}

// A TIFF whose first directory holds `entries` (tag, type, value) after a
// leading entry of another tag.
Bytes Tiff(bool little, std::vector<std::array<uint32_t, 3>> entries, uint32_t ifd = 8) {
  Bytes b;
  auto u16 = [&](unsigned v) { little ? Le16(b, v) : Be16(b, v); };
  auto u32 = [&](uint32_t v) { little ? Le32(b, v) : Be32(b, v); };
  Put(b, little ? "II" : "MM");
  u16(42);
  u32(ifd);
  b.resize(ifd, 0);
  u16(static_cast<unsigned>(entries.size() + 1));
  u16(254), u16(4), u32(1), u32(0);
  for (auto [tag, type, value] : entries) {
    u16(tag), u16(type), u32(1);
    if (type == 3) u16(value), u16(0);
    else u32(value);
  }
  u32(0);
  return b;
}

TEST(TiffSize, BothByteOrdersShortAndLong) {
  EXPECT_EQ(Size(Tiff(true, {{256, 3, 1600}, {257, 3, 2100}}), "tif"), "1600x2100");
  EXPECT_EQ(Size(Tiff(false, {{256, 3, 1600}, {257, 3, 2100}}), "tif"), "1600x2100");
  EXPECT_EQ(Size(Tiff(true, {{257, 4, 70000}, {256, 4, 80000}}), "tiff"), "80000x70000");
  EXPECT_EQ(Size(Tiff(false, {{256, 4, 200}, {257, 3, 133}}, 5000), "tif"), "200x133");
}

TEST(TiffSize, MissingOrUnusableDirectoryFails) {
  EXPECT_EQ(Size(Tiff(true, {{256, 3, 10}}), "tif"), "fail") << "no height";
  EXPECT_EQ(Size(Tiff(true, {{256, 2, 10}, {257, 3, 10}}), "tif"), "fail") << "ASCII width";
  Bytes b = Tiff(true, {{256, 3, 10}, {257, 3, 10}});
  b[4] = 0xF0;  // directory offset beyond the end
  EXPECT_EQ(Size(b, "tif"), "fail");
  b = Tiff(false, {{256, 3, 10}});
  b[8] = 0xFF;  // 65000-odd entries claimed, two present, no height among them
  b[9] = 0xF0;
  EXPECT_EQ(Size(b, "tif"), "fail");
  b = Tiff(false, {{256, 3, 10}, {257, 3, 20}});
  b[8] = 0xFF;  // the sizes come before the damage: still read
  EXPECT_EQ(Size(b, "tif"), "10x20");
}

TEST(PsdSize, ReadsRowsAndColumns) {
  Bytes b;
  Put(b, "8BPS");
  Be16(b, 1);
  b.resize(12, 0);
  Be16(b, 3);
  Be32(b, 133);  // rows
  Be32(b, 200);  // columns
  EXPECT_EQ(Size(b, "psd"), "200x133");
  b[5] = 3;
  EXPECT_EQ(Size(b, "psd"), "fail");
}

TEST(FormatChoice, MagicBytesRescueAWrongOrUnknownExtension) {
  Bytes gif;
  Put(gif, "GIF89a");
  Le16(gif, 5);
  Le16(gif, 6);
  EXPECT_EQ(Size(gif, "jpg"), "5x6");
  EXPECT_EQ(Size(gif, "ufo"), "5x6");
  EXPECT_EQ(Size(gif, ""), "5x6");
  EXPECT_EQ(Size(Tiff(false, {{256, 3, 7}, {257, 3, 8}}), "png"), "7x8");
  EXPECT_EQ(Size(Jpeg(9, 10), "bmp"), "9x10");
  // A real layered document of that editor has no magic we know.
  Bytes ufo;
  Put(ufo, "UFO-object-data-with-no-known-header");
  EXPECT_EQ(Size(ufo, "ufo"), "fail");
  EXPECT_EQ(Size({}, "jpg"), "fail");
}

class TempDir {
 public:
  TempDir() {
    std::string pattern = (fs::temp_directory_path() / "orvo-imgsize-XXXXXX").string();
    path_ = mkdtemp(pattern.data());
  }
  ~TempDir() {
    std::error_code ec;
    fs::remove_all(path_, ec);
  }
  std::string Write(const std::string& name, const Bytes& b) const {
    std::string p = path_ + "/" + name;
    std::ofstream(p, std::ios::binary).write(reinterpret_cast<const char*>(b.data()), b.size());
    return p;
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

TEST(ImgResGetOnFiles, ReadsAcrossWindowRefillsAndPicksTheExtension) {
  TempDir dir;
  int w = 0, h = 0;
  // The frame header sits past several 4 KiB windows.
  EXPECT_EQ(ORVOIndexImgResGet(dir.Write("big exif.JPG", Jpeg(4000, 3000, 40000)).c_str(), &w, &h), 0);
  EXPECT_EQ(w, 4000);
  EXPECT_EQ(h, 3000);
  EXPECT_EQ(ORVOIndexImgResGet(dir.Write("far.tif", Tiff(true, {{256, 3, 11}, {257, 3, 12}}, 9000)).c_str(),
                               &w, &h),
            0);
  EXPECT_EQ(w, 11);
  EXPECT_EQ(h, 12);
  // The folder's dot is not the file's extension.
  EXPECT_EQ(ORVOIndexImgResGet(dir.Write("noext", Bmp(40, 3, 4)).c_str(), &w, &h), 0);
  EXPECT_EQ(w, 3);
}

TEST(ImgResGetOnFiles, OddPathsFailWithoutHanging) {
  TempDir dir;
  int w = -7, h = -7;
  EXPECT_NE(ORVOIndexImgResGet((dir.path() + "/missing.jpg").c_str(), &w, &h), 0);
  EXPECT_NE(ORVOIndexImgResGet(dir.path().c_str(), &w, &h), 0);
  std::string fifo = dir.path() + "/pipe.jpg";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_NE(ORVOIndexImgResGet(fifo.c_str(), &w, &h), 0) << "a FIFO is no picture";
  EXPECT_NE(ORVOIndexImgResGet(dir.Write("empty.png", {}).c_str(), &w, &h), 0);
  EXPECT_NE(ORVOIndexImgResGet(nullptr, &w, &h), 0);
  EXPECT_EQ(w, -7);
  EXPECT_EQ(h, -7);
}

// Reference sizes other tools report for the corpus pictures, from
// reference.json: {"pictures/name", width, height}, null sizes skipped.
std::vector<std::tuple<std::string, int, int>> ReferenceSizes(const std::string& json) {
  std::vector<std::tuple<std::string, int, int>> out;
  std::regex key(R"re(\n  "(pictures/[^"]+)": \{)re");
  std::regex width(R"re("width": \{\s*"value": (\d+))re");
  std::regex height(R"re("height": \{\s*"value": (\d+))re");
  for (auto it = std::sregex_iterator(json.begin(), json.end(), key); it != std::sregex_iterator(); ++it) {
    size_t start = it->position() + it->length();
    size_t end = json.find("\n  \"", start);
    std::string block = json.substr(start, end == std::string::npos ? std::string::npos : end - start);
    std::smatch w, h;
    if (std::regex_search(block, w, width) && std::regex_search(block, h, height))
      out.emplace_back((*it)[1], std::stoi(w[1]), std::stoi(h[1]));
  }
  return out;
}

TEST(ImgResGetOnCorpus, MatchesWhatOtherToolsReport) {
  std::string reference = std::string(ORVO_CORPUS_DIR) + "/reference.json";
  std::ifstream in(reference);
  if (!in) GTEST_SKIP() << "no corpus at " << ORVO_CORPUS_DIR;
  std::stringstream text;
  text << in.rdbuf();
  auto sizes = ReferenceSizes(text.str());
  ASSERT_GT(sizes.size(), 40u) << "reference.json changed shape";
  for (const auto& [name, refW, refH] : sizes) {
    int w = 0, h = 0;
    std::string path = std::string(ORVO_CORPUS_DIR) + "/" + name;
    EXPECT_EQ(ORVOIndexImgResGet(path.c_str(), &w, &h), 0) << name;
    EXPECT_EQ(w, refW) << name;
    EXPECT_EQ(h, refH) << name;
  }
}

TEST(ImgResGetOnCorpus, EveryPictureIsReadWithoutCrashing) {
  std::string folder = std::string(ORVO_CORPUS_DIR) + "/pictures";
  if (!fs::is_directory(folder)) GTEST_SKIP() << "no corpus at " << ORVO_CORPUS_DIR;
  int read = 0;
  for (const auto& entry : fs::directory_iterator(folder)) {
    int w = 0, h = 0;
    if (ORVOIndexImgResGet(entry.path().c_str(), &w, &h) == 0) {
      EXPECT_GT(w, 0) << entry.path();
      EXPECT_GT(h, 0) << entry.path();
      ++read;
    }
  }
  EXPECT_GT(read, 0);
}

}  // namespace
