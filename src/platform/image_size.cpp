// Picture pixel sizes straight from the file headers. Decoding libraries
// would parse (or at least set up) far more than the few header bytes we
// need; these readers cost one small read for most formats, a few more for
// a JPEG's marker walk or a TIFF directory, and never touch pixel data.
#include "platform/image_size.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/media_db.h"
#include "platform/read_advice.h"

namespace {

enum class Format { kUnknown, kJpeg, kPng, kGif, kBmp, kIco, kTiff, kPsd };

// Reads byte ranges of a picture, from memory or from a file through one
// window of the file's bytes, refilled only when a read falls outside it.
class ByteSource {
 public:
  static constexpr size_t kWindow = 4096;

  ByteSource(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  explicit ByteSource(int fd) : fd_(fd) {}

  // Copies exactly n (<= kWindow) bytes at `offset` into `out`; false when
  // the picture ends first or the file cannot be read.
  bool Read(uint64_t offset, void* out, size_t n) {
    if (fd_ < 0) {
      if (offset > size_ || n > size_ - offset) return false;
      memcpy(out, data_ + offset, n);
      return true;
    }
    if (!InWindow(offset, n)) {
      if (n > kWindow || !Fill(offset) || !InWindow(offset, n)) return false;
    }
    memcpy(out, window_ + (offset - windowOffset_), n);
    return true;
  }

 private:
  bool InWindow(uint64_t offset, size_t n) const {
    return offset >= windowOffset_ && offset - windowOffset_ <= windowLength_ &&
           n <= windowLength_ - (offset - windowOffset_);
  }

  bool Fill(uint64_t offset) {
    if (offset > static_cast<uint64_t>(INT64_MAX)) return false;
    ssize_t got;
    do {
      got = pread(fd_, window_, kWindow, static_cast<off_t>(offset));
    } while (got < 0 && errno == EINTR);
    if (got < 0) return false;
    windowOffset_ = offset;
    windowLength_ = static_cast<size_t>(got);
    return true;
  }

  int fd_ = -1;
  const uint8_t* data_ = nullptr;
  size_t size_ = 0;
  uint8_t window_[kWindow];
  uint64_t windowOffset_ = 0;
  size_t windowLength_ = 0;
};

uint16_t Be16(const uint8_t* p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }
uint16_t Le16(const uint8_t* p) { return static_cast<uint16_t>(p[1] << 8 | p[0]); }
uint32_t Be32(const uint8_t* p) {
  return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}
uint32_t Le32(const uint8_t* p) {
  return uint32_t{p[3]} << 24 | uint32_t{p[2]} << 16 | uint32_t{p[1]} << 8 | p[0];
}
uint64_t Le64(const uint8_t* p) { return uint64_t{Le32(p + 4)} << 32 | Le32(p); }
uint64_t Be64(const uint8_t* p) { return uint64_t{Be32(p)} << 32 | Be32(p + 4); }

bool Store(int64_t w, int64_t h, int* width, int* height) {
  if (w <= 0 || h <= 0 || w > INT_MAX || h > INT_MAX) return false;
  *width = static_cast<int>(w);
  *height = static_cast<int>(h);
  return true;
}

// Walks the markers from SOI to the first start-of-frame, jumping over every
// other segment (EXIF and thumbnails included) by its length.
bool JpegSize(ByteSource& src, int* width, int* height) {
  uint8_t b[9];
  if (!src.Read(0, b, 2) || b[0] != 0xFF || b[1] != 0xD8) return false;
  uint64_t pos = 2;
  // Segments and the junk a damaged file has between them are both bounded.
  constexpr int kMaxSegments = 4096;
  constexpr uint64_t kMaxJunk = 1 << 20;
  uint64_t junk = 0;
  for (int segment = 0; segment < kMaxSegments; ++segment) {
    // A marker is 0xFF (any number of fill bytes) and a code.
    if (!src.Read(pos, b, 1)) return false;
    while (b[0] != 0xFF) {
      if (++junk > kMaxJunk || !src.Read(++pos, b, 1)) return false;
    }
    do {
      if (!src.Read(++pos, b, 1)) return false;
    } while (b[0] == 0xFF);
    uint8_t code = b[0];
    ++pos;
    if (code == 0x00 || code == 0x01 || (code >= 0xD0 && code <= 0xD7)) continue;  // no length
    if (code == 0xD9 || code == 0xDA) return false;  // image ends or scan starts with no frame
    if (!src.Read(pos, b, 2)) return false;
    uint16_t length = Be16(b);
    if (length < 2) return false;
    bool startOfFrame = code >= 0xC0 && code <= 0xCF && code != 0xC4 && code != 0xC8 && code != 0xCC;
    if (startOfFrame) {
      if (length < 8 || !src.Read(pos + 2, b, 5)) return false;
      return Store(Be16(b + 3), Be16(b + 1), width, height);
    }
    pos += length;
  }
  return false;
}

bool PngSize(ByteSource& src, int* width, int* height) {
  static const uint8_t kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
  uint8_t b[24];
  if (!src.Read(0, b, sizeof b) || memcmp(b, kSignature, 8) != 0 || memcmp(b + 12, "IHDR", 4) != 0)
    return false;
  return Store(Be32(b + 16), Be32(b + 20), width, height);
}

bool GifSize(ByteSource& src, int* width, int* height) {
  uint8_t b[10];
  if (!src.Read(0, b, sizeof b) || (memcmp(b, "GIF87a", 6) != 0 && memcmp(b, "GIF89a", 6) != 0))
    return false;
  return Store(Le16(b + 6), Le16(b + 8), width, height);
}

bool BmpSize(ByteSource& src, int* width, int* height) {
  uint8_t b[26];
  if (!src.Read(0, b, 18) || b[0] != 'B' || b[1] != 'M') return false;
  uint32_t headerSize = Le32(b + 14);
  if (headerSize == 12) {  // the old core header: unsigned 16-bit sizes
    if (!src.Read(0, b, 22)) return false;
    return Store(Le16(b + 18), Le16(b + 20), width, height);
  }
  if (headerSize < 16 || !src.Read(0, b, 26)) return false;
  int64_t w = static_cast<int32_t>(Le32(b + 18));
  int64_t h = static_cast<int32_t>(Le32(b + 22));
  // A negative height marks rows stored top-down; the picture is as tall.
  return Store(w, h < 0 ? -h : h, width, height);
}

// The size of the first image in the directory; a byte of 0 means 256.
bool IcoSize(ByteSource& src, int* width, int* height) {
  uint8_t b[8];
  if (!src.Read(0, b, sizeof b)) return false;
  uint16_t type = Le16(b + 2);
  if (Le16(b) != 0 || (type != 1 && type != 2) || Le16(b + 4) == 0) return false;
  return Store(b[6] == 0 ? 256 : b[6], b[7] == 0 ? 256 : b[7], width, height);
}

// ImageWidth (256) and ImageLength (257) of the first directory, in either
// byte order, as SHORT or LONG; BigTIFF's wider fields too.
bool TiffSize(ByteSource& src, int* width, int* height) {
  uint8_t b[20];
  if (!src.Read(0, b, 8)) return false;
  bool little = b[0] == 'I' && b[1] == 'I';
  if (!little && !(b[0] == 'M' && b[1] == 'M')) return false;
  auto u16 = [little](const uint8_t* p) { return little ? Le16(p) : Be16(p); };
  auto u32 = [little](const uint8_t* p) { return little ? Le32(p) : Be32(p); };
  auto u64 = [little](const uint8_t* p) { return little ? Le64(p) : Be64(p); };

  uint16_t version = u16(b + 2);
  bool big = version == 43;
  if (version != 42 && !big) return false;
  uint64_t ifd;
  if (big) {
    if (!src.Read(8, b + 8, 8) || u16(b + 4) != 8) return false;
    ifd = u64(b + 8);
  } else {
    ifd = u32(b + 4);
  }
  size_t countSize = big ? 8 : 2, entrySize = big ? 20 : 12, valueAt = big ? 12 : 8;
  if (!src.Read(ifd, b, countSize)) return false;
  // A directory has at most 65535 entries in classic TIFF; hold BigTIFF's
  // count to the same so a damaged count cannot make us walk for ever.
  uint64_t count = std::min<uint64_t>(big ? u64(b) : u16(b), 65535);

  int64_t w = -1, h = -1;
  for (uint64_t i = 0; i < count && (w < 0 || h < 0); ++i) {
    if (!src.Read(ifd + countSize + i * entrySize, b, entrySize)) return false;
    uint16_t tag = u16(b);
    if (tag != 256 && tag != 257) continue;
    uint16_t type = u16(b + 2);
    int64_t value;
    if (type == 3) value = u16(b + valueAt);        // SHORT
    else if (type == 4) value = u32(b + valueAt);   // LONG
    else if (type == 16 && big) value = static_cast<int64_t>(std::min<uint64_t>(u64(b + valueAt), INT64_MAX));
    else return false;
    (tag == 256 ? w : h) = value;
  }
  return Store(w, h, width, height);
}

bool PsdSize(ByteSource& src, int* width, int* height) {
  uint8_t b[22];
  if (!src.Read(0, b, sizeof b) || memcmp(b, "8BPS", 4) != 0) return false;
  uint16_t version = Be16(b + 4);  // 2 is the large-document variant, same header
  if (version != 1 && version != 2) return false;
  return Store(Be32(b + 18), Be32(b + 14), width, height);
}

bool SizeOf(Format format, ByteSource& src, int* width, int* height) {
  switch (format) {
    case Format::kJpeg: return JpegSize(src, width, height);
    case Format::kPng: return PngSize(src, width, height);
    case Format::kGif: return GifSize(src, width, height);
    case Format::kBmp: return BmpSize(src, width, height);
    case Format::kIco: return IcoSize(src, width, height);
    case Format::kTiff: return TiffSize(src, width, height);
    case Format::kPsd: return PsdSize(src, width, height);
    case Format::kUnknown: return false;
  }
  return false;
}

// "ufo" maps to no reader on purpose: it is a photo editor's layered
// object format whose layout has never been published, so there is nothing
// safe to read a size from. A .ufo that is really another format (a renamed
// JPEG, say) is still sized through its magic bytes.
Format ByExtension(std::string_view ext) {
  char lower[5] = {};
  if (ext.size() >= sizeof lower) return Format::kUnknown;
  for (size_t i = 0; i < ext.size(); ++i)
    lower[i] = static_cast<char>(ext[i] >= 'A' && ext[i] <= 'Z' ? ext[i] + 32 : ext[i]);
  std::string_view e = lower;
  if (e == "jpg" || e == "jpeg" || e == "jpe") return Format::kJpeg;
  if (e == "png") return Format::kPng;
  if (e == "gif") return Format::kGif;
  if (e == "bmp") return Format::kBmp;
  if (e == "ico") return Format::kIco;
  if (e == "tif" || e == "tiff") return Format::kTiff;
  if (e == "psd") return Format::kPsd;
  return Format::kUnknown;
}

Format ByMagic(ByteSource& src) {
  uint8_t b[4];
  if (!src.Read(0, b, sizeof b)) return Format::kUnknown;
  if (b[0] == 0xFF && b[1] == 0xD8 && b[2] == 0xFF) return Format::kJpeg;
  if (b[0] == 0x89 && memcmp(b + 1, "PNG", 3) == 0) return Format::kPng;
  if (memcmp(b, "GIF8", 4) == 0) return Format::kGif;
  if (b[0] == 'B' && b[1] == 'M') return Format::kBmp;
  if (memcmp(b, "8BPS", 4) == 0) return Format::kPsd;
  if ((memcmp(b, "II", 2) == 0 && (b[2] == 42 || b[2] == 43) && b[3] == 0) ||
      (memcmp(b, "MM", 2) == 0 && b[2] == 0 && (b[3] == 42 || b[3] == 43)))
    return Format::kTiff;
  if (b[0] == 0 && b[1] == 0 && (b[2] == 1 || b[2] == 2) && b[3] == 0) return Format::kIco;
  return Format::kUnknown;
}

int ImageSize(ByteSource& src, std::string_view extension, int* width, int* height) {
  if (width == nullptr || height == nullptr) return -1;
  Format named = ByExtension(extension);
  if (named != Format::kUnknown && SizeOf(named, src, width, height)) return 0;
  Format sniffed = ByMagic(src);
  if (sniffed != named && SizeOf(sniffed, src, width, height)) return 0;
  return -1;
}

std::string_view ExtensionOf(std::string_view path) {
  size_t slash = path.rfind('/');
  size_t dot = path.rfind('.');
  if (dot == std::string_view::npos || (slash != std::string_view::npos && dot < slash)) return {};
  return path.substr(dot + 1);
}

}  // namespace

int ImageSizeFromBytes(const uint8_t* data, size_t size, std::string_view extension, int* width,
                       int* height) {
  if (data == nullptr) return -1;
  ByteSource src(data, size);
  return ImageSize(src, extension, width, height);
}

int ORVOIndexImgResGet(const char* path, int* width, int* height) {
  if (path == nullptr) return -1;
  // O_NONBLOCK: a FIFO or device named like a picture must not stall the run.
  int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) return -1;
  struct stat st;
  int result = -1;
  if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
    AdviseFewReads(fd);  // one 4 KiB window, rarely a second
    ByteSource src(fd);
    result = ImageSize(src, ExtensionOf(path), width, height);
  }
  close(fd);
  return result;
}
