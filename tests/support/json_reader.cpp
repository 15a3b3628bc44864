#include "support/json_reader.h"

#include <cstdlib>

#include "platform/text_encoding.h"

namespace orvo::test {

namespace {

struct Cursor {
  std::string_view text;
  size_t at = 0;

  bool AtEnd() {
    at = std::min(text.find_first_not_of(" \t\r\n", at), text.size());
    return at == text.size();
  }
  bool Take(char c) {
    if (AtEnd() || text[at] != c) return false;
    ++at;
    return true;
  }
  bool Word(std::string_view word) {
    if (text.substr(at, word.size()) != word) return false;
    at += word.size();
    return true;
  }
};

bool ParseValue(Cursor& in, JsonValue* value, int depth);

// A string's bytes with the escapes resolved (\u to UTF-8, no surrogate pairs: not needed here).
bool ParseString(Cursor& in, std::string* out) {
  if (!in.Take('"')) return false;
  const size_t start = in.at;
  for (; in.at < in.text.size(); ++in.at) {
    const auto c = static_cast<unsigned char>(in.text[in.at]);
    if (c == '"') return ++in.at, IsValidUtf8(in.text.substr(start, in.at - 1 - start));
    if (c < 0x20 || (c == '\\' && ++in.at == in.text.size())) return false;
    if (c != '\\') {
      *out += static_cast<char>(c);
      continue;
    }
    const char e = in.text[in.at];
    if (e == 'u') {
      const std::string hex(in.text.substr(in.at + 1, 4));
      if (hex.size() != 4 || hex.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) return false;
      const auto code = static_cast<unsigned>(strtoul(hex.c_str(), nullptr, 16));
      in.at += 4;
      if (code < 0x80) {
        *out += static_cast<char>(code);
      } else if (code < 0x800) {
        *out += {static_cast<char>(0xC0 | code >> 6), static_cast<char>(0x80 | (code & 0x3F))};
      } else {
        *out += {static_cast<char>(0xE0 | code >> 12), static_cast<char>(0x80 | (code >> 6 & 0x3F)),
                 static_cast<char>(0x80 | (code & 0x3F))};
      }
      continue;
    }
    const size_t i = std::string_view("\"\\/ntrbf").find(e);
    if (i == std::string_view::npos) return false;
    *out += "\"\\/\n\t\r\b\f"[i];
  }
  return false;
}

bool ParseValue(Cursor& in, JsonValue* value, int depth) {
  if (depth > 64 || in.AtEnd()) return false;
  using Kind = JsonValue::Kind;
  if (in.Take('[')) {
    value->kind = Kind::kArray;
    if (in.Take(']')) return true;
    do {
      if (!ParseValue(in, &value->items.emplace_back(), depth + 1)) return false;
    } while (in.Take(','));
    return in.Take(']');
  }
  if (in.Take('{')) {
    value->kind = Kind::kObject;
    if (in.Take('}')) return true;
    do {
      std::string key;
      if (in.AtEnd() || !ParseString(in, &key) || !in.Take(':')) return false;
      if (!value->members.emplace(key, JsonValue{}).second) return false;  // a key twice
      if (!ParseValue(in, &value->members[key], depth + 1)) return false;
    } while (in.Take(','));
    return in.Take('}');
  }
  if (in.text[in.at] == '"') return value->kind = Kind::kString, ParseString(in, &value->text);
  if (in.Word("true")) return value->kind = Kind::kBool, value->boolean = true;
  if (in.Word("false")) return value->kind = Kind::kBool, true;
  if (in.Word("null")) return true;
  const size_t start = in.at;
  in.at = std::min(in.text.find_first_not_of("-0123456789.eE+", start), in.text.size());
  const std::string digits(in.text.substr(start, in.at - start));
  char* end = nullptr;
  value->kind = Kind::kNumber;
  value->number = strtod(digits.c_str(), &end);
  return !digits.empty() && end == digits.c_str() + digits.size();
}

}  // namespace

const JsonValue& JsonValue::operator[](const std::string& key) const {
  static const JsonValue kNone;
  auto it = members.find(key);
  return it == members.end() ? kNone : it->second;
}

std::optional<JsonValue> ParseJson(std::string_view text) {
  Cursor in{text};
  JsonValue value;
  if (!ParseValue(in, &value, 0) || !in.AtEnd()) return std::nullopt;
  return value;
}

}  // namespace orvo::test
