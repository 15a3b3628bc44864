// Builders for MP3 bytes in tests: ID3v1 and ID3v2 tags, MPEG audio frames,
// Xing and VBRI headers, and a scratch folder for the files made from them.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "meta/metaid3.h"

namespace mp3test {

inline std::string Syncsafe(uint32_t v) {
  return {char((v >> 21) & 0x7F), char((v >> 14) & 0x7F), char((v >> 7) & 0x7F), char(v & 0x7F)};
}

inline std::string BigEndian32(uint32_t v) {
  return {char(v >> 24), char(v >> 16), char(v >> 8), char(v)};
}

// An ID3v2.3 frame: plain 32-bit size.
inline std::string Frame23(const std::string& id, const std::string& body) {
  return id + BigEndian32(uint32_t(body.size())) + std::string(2, '\0') + body;
}

// An ID3v2.4 frame: syncsafe size.
inline std::string Frame24(const std::string& id, const std::string& body) {
  return id + Syncsafe(uint32_t(body.size())) + std::string(2, '\0') + body;
}

// An ID3v2.2 frame: 3-character id and three size bytes (big-endian, as
// writers put them).
inline std::string Frame22(const std::string& id, const std::string& body) {
  uint32_t n = uint32_t(body.size());
  return id + std::string{char(n >> 16), char(n >> 8), char(n)} + body;
}

// Latin-1 text with its encoding byte.
inline std::string Text(const std::string& s) { return std::string(1, '\0') + s; }

// An ID3v2 tag of the given major version around `frames`, plus `padding` zero bytes.
inline std::string Id3v2(int major, const std::string& frames, size_t padding = 0) {
  std::string body = frames + std::string(padding, '\0');
  return std::string("ID3") + char(major) + '\0' + '\0' + Syncsafe(uint32_t(body.size())) + body;
}

// A 128-byte ID3v1 tag; fields are padded with `pad` to their widths.
struct Id3v1Fields {
  std::string title, artist, album, year, comment;
  int genre = 255;
  int track = -1;  // >= 0 makes it ID3v1.1
  char pad = '\0';
};

inline std::string Id3v1(const Id3v1Fields& f) {
  auto field = [&](const std::string& s, size_t width) {
    std::string out = s.substr(0, width);
    out.resize(width, f.pad);
    return out;
  };
  std::string tag = "TAG" + field(f.title, 30) + field(f.artist, 30) + field(f.album, 30) +
                    field(f.year, 4) + field(f.comment, 30) + char(f.genre);
  if (f.track >= 0) {
    tag[125] = '\0';
    tag[126] = char(f.track);
  }
  return tag;
}

// MPEG-1 layer III, 128 kbit/s, 44100 Hz: 417 bytes without padding.
inline constexpr int kFrame128Length = 417;

// `count` frames with header bytes FF b1 b2 b3, each `length` bytes long,
// filled with a byte that can never start a sync.
inline std::string Frames(uint8_t b1, uint8_t b2, uint8_t b3, int length, int count) {
  std::string frame(size_t(length), '\x55');
  frame[0] = '\xFF';
  frame[1] = char(b1);
  frame[2] = char(b2);
  frame[3] = char(b3);
  std::string out;
  for (int i = 0; i < count; ++i) out += frame;
  return out;
}

// MPEG-1 layer III, 128 kbit/s, 44100 Hz; `mode` is the channel-mode code.
inline std::string Cbr128(int count, int mode = 1) {
  return Frames(0xFB, 0x90, uint8_t(mode << 6), kFrame128Length, count);
}

// A first frame carrying a Xing header with a frame count (MPEG-1 stereo
// layer III puts it 36 bytes into the frame), followed by `count` more frames.
inline std::string XingStream(uint32_t frames, int count, bool frames_flag = true) {
  std::string first = Cbr128(1);
  std::string xing = "Xing" + BigEndian32(frames_flag ? 1 : 0) + BigEndian32(frames);
  first.replace(36, xing.size(), xing);
  return first + Cbr128(count);
}

inline std::string VbriStream(uint32_t frames, int count) {
  std::string first = Cbr128(1);
  // "VBRI", version, delay, quality, byte count, then the frame count at +14.
  std::string vbri = "VBRI" + std::string(6, '\0') + BigEndian32(0) + BigEndian32(frames);
  first.replace(36, vbri.size(), vbri);
  return first + Cbr128(count);
}

// Reads `bytes` from memory into a zeroed record.
inline int ReadRecord(const std::string& bytes, MediaInfo* rec) {
  memset(rec, 0, sizeof *rec);
  return ReadMp3InfoFromMemory(bytes.data(), bytes.size(), rec);
}

// A scratch folder, removed with everything in it.
class TempDir {
 public:
  TempDir() {
    char tmpl[] = "/tmp/orvo-mp3-XXXXXX";
    path_ = mkdtemp(tmpl) ? tmpl : "";
  }
  ~TempDir() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }

  std::string Write(const std::string& name, const std::string& bytes) const {
    std::string full = path_ + "/" + name;
    std::filesystem::create_directories(std::filesystem::path(full).parent_path());
    FILE* f = fopen(full.c_str(), "wb");
    if (f != nullptr) {
      fwrite(bytes.data(), 1, bytes.size(), f);
      fclose(f);
    }
    return full;
  }

 private:
  std::string path_;
};

}  // namespace mp3test
