#include "platform/record_text.h"

namespace orvo {

namespace {

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool IsControl(unsigned char c) { return c < 0x20 || c == 0x7f; }

}  // namespace

void AppendEscapedField(std::string& out, std::string_view text) {
  static constexpr char kHex[] = "0123456789abcdef";
  for (char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else if (IsControl(byte)) {
      out += "\\x";
      out += kHex[byte >> 4];
      out += kHex[byte & 0xf];
    } else {
      out += c;
    }
  }
}

bool UnescapeField(std::string_view text, std::string* out) {
  out->clear();
  out->reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (IsControl(static_cast<unsigned char>(c))) return false;
    if (c != '\\') {
      *out += c;
      continue;
    }
    if (++i == text.size()) return false;
    switch (text[i]) {
      case '\\': *out += '\\'; break;
      case 't': *out += '\t'; break;
      case 'n': *out += '\n'; break;
      case 'r': *out += '\r'; break;
      case 'x': {
        const int high = i + 1 < text.size() ? HexValue(text[i + 1]) : -1;
        const int low = i + 2 < text.size() ? HexValue(text[i + 2]) : -1;
        if (high < 0 || low < 0) return false;
        *out += static_cast<char>(high << 4 | low);
        i += 2;
        break;
      }
      default:
        return false;
    }
  }
  return true;
}

}  // namespace orvo
