// Builders for MP3 bytes in tests: ID3 tags, MPEG audio frames, Xing and VBRI headers.
#pragma once

#include <cstring>
#include <string>

#include "meta/metaid3.h"

namespace mp3test {

inline std::string Syncsafe(uint32_t v) {
  return {char((v >> 21) & 0x7F), char((v >> 14) & 0x7F), char((v >> 7) & 0x7F), char(v & 0x7F)};
}
inline std::string BigEndian32(uint32_t v) { return {char(v >> 24), char(v >> 16), char(v >> 8), char(v)}; }

// Frame sizes: ID3v2.3 plain 32-bit, ID3v2.4 syncsafe, ID3v2.2 three bytes after a 3-character id.
inline std::string Frame23(const std::string& id, const std::string& body) {
  return id + BigEndian32(uint32_t(body.size())) + std::string(2, '\0') + body;
}
inline std::string Frame24(const std::string& id, const std::string& body) {
  return id + Syncsafe(uint32_t(body.size())) + std::string(2, '\0') + body;
}
inline std::string Frame22(const std::string& id, const std::string& body) {
  uint32_t n = uint32_t(body.size());
  return id + std::string{char(n >> 16), char(n >> 8), char(n)} + body;
}

// Latin-1 text with its encoding byte.
inline std::string Text(const std::string& s) { return std::string(1, '\0') + s; }

inline std::string Id3v2(int major, const std::string& frames, size_t padding = 0) {
  std::string body = frames + std::string(padding, '\0');
  return std::string("ID3") + char(major) + '\0' + '\0' + Syncsafe(uint32_t(body.size())) + body;
}

// A 128-byte ID3v1 tag with no genre; every other byte is `pad`.
inline std::string Id3v1(const std::string& title = "", const std::string& year = "", char pad = '\0') {
  std::string tag = "TAG" + std::string(125, pad);
  tag.replace(3, title.size(), title);
  tag.replace(93, year.size(), year);
  tag[127] = '\xFF';
  return tag;
}

// MPEG-1 layer III, 128 kbit/s, 44100 Hz: 417 bytes without padding.
inline constexpr int kFrame128Length = 417;

// `count` frames with header FF b1 b2 b3, `length` bytes each, filled with a byte that never syncs.
inline std::string Frames(uint8_t b1, uint8_t b2, uint8_t b3, int length, int count) {
  std::string frame = std::string{'\xFF', char(b1), char(b2), char(b3)} + std::string(size_t(length - 4), '\x55');
  std::string out;
  for (int i = 0; i < count; ++i) out += frame;
  return out;
}

// MPEG-1 layer III, 128 kbit/s, 44100 Hz; `mode` is the channel-mode code.
inline std::string Cbr128(int count, int mode = 1) {
  return Frames(0xFB, 0x90, uint8_t(mode << 6), kFrame128Length, count);
}

// A first frame with a Xing header (36 bytes in, for MPEG-1 stereo layer III), then `count` frames.
inline std::string XingStream(uint32_t frames, int count, bool frames_flag = true) {
  std::string first = Cbr128(1);
  first.replace(36, 12, "Xing" + BigEndian32(frames_flag ? 1 : 0) + BigEndian32(frames));
  return first + Cbr128(count);
}

// "VBRI", version, delay, quality, byte count, then the frame count at +14.
inline std::string VbriStream(uint32_t frames, int count) {
  std::string first = Cbr128(1);
  first.replace(36, 18, "VBRI" + std::string(10, '\0') + BigEndian32(frames));
  return first + Cbr128(count);
}

// A small MP3 with a title, which its handler saves without a word in the log.
inline std::string TaggedMp3(const std::string& title) {
  return Id3v2(4, Frame24("TIT2", Text(title))) + XingStream(50, 4);
}

inline int ReadRecord(const std::string& bytes, MediaInfo* rec) {
  memset(rec, 0, sizeof *rec);
  return ReadMp3InfoFromMemory(bytes.data(), bytes.size(), rec);
}

}  // namespace mp3test
