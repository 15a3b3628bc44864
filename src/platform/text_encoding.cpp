#include "platform/text_encoding.h"

#include <cstdint>
#include <cstring>

namespace orvo {

namespace {

// Length of the UTF-8 sequence starting at s[0] when it is well-formed, else 0.
size_t Utf8SequenceLength(const unsigned char* s, size_t left) {
  unsigned char c = s[0];
  if (c < 0x80) return 1;
  size_t n;
  uint32_t cp;
  if (c >= 0xC2 && c <= 0xDF) {
    n = 2;
    cp = c & 0x1F;
  } else if (c >= 0xE0 && c <= 0xEF) {
    n = 3;
    cp = c & 0x0F;
  } else if (c >= 0xF0 && c <= 0xF4) {
    n = 4;
    cp = c & 0x07;
  } else {
    return 0;
  }
  if (left < n) return 0;
  for (size_t i = 1; i < n; ++i) {
    if ((s[i] & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (s[i] & 0x3F);
  }
  if (n == 3 && (cp < 0x800 || (cp >= 0xD800 && cp <= 0xDFFF))) return 0;
  if (n == 4 && (cp < 0x10000 || cp > 0x10FFFF)) return 0;
  return n;
}

size_t EncodeUtf8(uint32_t cp, char* buf) {
  if (cp < 0x80) {
    buf[0] = static_cast<char>(cp);
    return 1;
  }
  if (cp < 0x800) {
    buf[0] = static_cast<char>(0xC0 | (cp >> 6));
    buf[1] = static_cast<char>(0x80 | (cp & 0x3F));
    return 2;
  }
  if (cp < 0x10000) {
    buf[0] = static_cast<char>(0xE0 | (cp >> 12));
    buf[1] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    buf[2] = static_cast<char>(0x80 | (cp & 0x3F));
    return 3;
  }
  buf[0] = static_cast<char>(0xF0 | (cp >> 18));
  buf[1] = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
  buf[2] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
  buf[3] = static_cast<char>(0x80 | (cp & 0x3F));
  return 4;
}

// Appends whole characters only; false once the next one does not fit.
struct FieldWriter {
  char* out;
  size_t capacity;  // bytes available for text, the NUL excluded
  size_t used = 0;
  bool Put(const char* bytes, size_t n) {
    if (used + n > capacity) return false;
    memcpy(out + used, bytes, n);
    used += n;
    return true;
  }
};

void DecodeUtf16(const unsigned char* in, size_t inSize, FieldWriter& w) {
  if (inSize < 2) return;
  bool bigEndian;
  if (in[0] == 0xFE && in[1] == 0xFF) {
    bigEndian = true;
  } else if (in[0] == 0xFF && in[1] == 0xFE) {
    bigEndian = false;
  } else {
    return;
  }
  auto unitAt = [&](size_t i) -> uint32_t {
    return bigEndian ? (in[i] << 8) | in[i + 1] : in[i] | (in[i + 1] << 8);
  };
  char buf[4];
  for (size_t i = 2; i + 1 < inSize;) {
    uint32_t cp = unitAt(i);
    i += 2;
    if (cp == 0) break;
    if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < inSize) {
      uint32_t low = unitAt(i);
      if (low >= 0xDC00 && low <= 0xDFFF) {
        cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
        i += 2;
      }
    }
    if (cp >= 0xD800 && cp <= 0xDFFF) cp = 0xFFFD;  // a lone surrogate
    if (!w.Put(buf, EncodeUtf8(cp, buf))) break;
  }
}

}  // namespace

bool IsValidUtf8(std::string_view text) {
  auto s = reinterpret_cast<const unsigned char*>(text.data());
  size_t i = 0;
  while (i < text.size()) {
    size_t n = Utf8SequenceLength(s + i, text.size() - i);
    if (n == 0) return false;
    i += n;
  }
  return true;
}

namespace {

// How many bytes of the valid UTF-8 `text` (`length` bytes) fit in `room`
// without cutting a character: the cut backs off over continuation bytes.
size_t WholeCharactersIn(const char* text, size_t length, size_t room) {
  if (length <= room) return length;
  size_t n = room;
  while (n > 0 && (static_cast<unsigned char>(text[n]) & 0xC0) == 0x80) --n;
  return n;
}

}  // namespace

size_t ToUtf8Field(const char* in, size_t inSize, bool isUtf16, char* out, size_t outSize) {
  if (outSize == 0) return 0;
  FieldWriter w{out, outSize - 1};
  auto bytes = reinterpret_cast<const unsigned char*>(in);
  if (isUtf16) {
    DecodeUtf16(bytes, inSize, w);
  } else {
    size_t length = strnlen(in, inSize);
    if (IsValidUtf8(std::string_view(in, length))) {
      w.used = WholeCharactersIn(in, length, w.capacity);
      memcpy(out, in, w.used);
    } else {
      char buf[2];
      for (size_t i = 0; i < length; ++i) {
        if (!w.Put(buf, EncodeUtf8(bytes[i], buf))) break;
      }
    }
  }
  out[w.used] = '\0';
  return w.used;
}

// Deliberate departure: the old copies cut at the width mid-character, which then read as Latin-1.
size_t CopyTextField(char* field, size_t size, std::string_view text) {
  if (size == 0) return 0;
  text = text.substr(0, strnlen(text.data(), text.size()));
  // Text that fits is copied whole, whatever its encoding.
  size_t n = text.size() < size - 1 ? text.size() : size - 1;
  if (n < text.size() && IsValidUtf8(text)) n = WholeCharactersIn(text.data(), text.size(), size - 1);
  memcpy(field, text.data(), n);
  field[n] = '\0';
  return n;
}

}  // namespace orvo
