#include "support/json_reader.h"

#include <cstdlib>

#include "platform/text_encoding.h"

namespace orvo::test {

namespace {

class Reader {
 public:
  explicit Reader(std::string_view text) : text_(text) {}

  bool Value(JsonValue* value, int depth) {
    SkipSpace();
    if (depth > 64 || at_ >= text_.size()) return false;
    const char c = text_[at_];
    if (c == '{') return Object(value, depth);
    if (c == '[') return Array(value, depth);
    if (c == '"') {
      value->kind = JsonValue::Kind::kString;
      return String(&value->text);
    }
    if (Word("true") || Word("false")) {
      value->kind = JsonValue::Kind::kBool;
      value->boolean = text_[at_ - 1] == 'e' && text_[at_ - 2] == 'u';
      return true;
    }
    if (Word("null")) return true;
    return Number(value);
  }

  bool AtEnd() {
    SkipSpace();
    return at_ == text_.size();
  }

 private:
  void SkipSpace() {
    while (at_ < text_.size() && (text_[at_] == ' ' || text_[at_] == '\n' || text_[at_] == '\t' || text_[at_] == '\r'))
      ++at_;
  }
  bool Take(char c) {
    SkipSpace();
    if (at_ >= text_.size() || text_[at_] != c) return false;
    ++at_;
    return true;
  }
  bool Word(std::string_view word) {
    if (text_.substr(at_, word.size()) != word) return false;
    at_ += word.size();
    return true;
  }
  bool Number(JsonValue* value) {
    const size_t start = at_;
    if (at_ < text_.size() && text_[at_] == '-') ++at_;
    while (at_ < text_.size() && std::string_view("0123456789.eE+-").find(text_[at_]) != std::string_view::npos) ++at_;
    if (at_ == start) return false;
    const std::string digits(text_.substr(start, at_ - start));
    char* end = nullptr;
    value->number = strtod(digits.c_str(), &end);
    value->kind = JsonValue::Kind::kNumber;
    return end == digits.c_str() + digits.size();
  }
  static int Hex(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  }
  static void AppendUtf8(std::string* out, unsigned code) {
    if (code < 0x80) {
      *out += static_cast<char>(code);
    } else if (code < 0x800) {
      *out += static_cast<char>(0xC0 | code >> 6);
      *out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
      *out += static_cast<char>(0xE0 | code >> 12);
      *out += static_cast<char>(0x80 | (code >> 6 & 0x3F));
      *out += static_cast<char>(0x80 | (code & 0x3F));
    }
  }
  bool String(std::string* out) {
    ++at_;  // the opening quote
    const size_t start = at_;
    for (; at_ < text_.size(); ++at_) {
      const auto c = static_cast<unsigned char>(text_[at_]);
      if (c == '"') {
        ++at_;
        return IsValidUtf8(text_.substr(start, at_ - 1 - start));
      }
      if (c < 0x20) return false;
      if (c != '\\') {
        *out += static_cast<char>(c);
        continue;
      }
      if (++at_ == text_.size()) return false;
      switch (text_[at_]) {
        case '"': *out += '"'; break;
        case '\\': *out += '\\'; break;
        case '/': *out += '/'; break;
        case 'n': *out += '\n'; break;
        case 't': *out += '\t'; break;
        case 'r': *out += '\r'; break;
        case 'b': *out += '\b'; break;
        case 'f': *out += '\f'; break;
        case 'u': {
          unsigned code = 0;
          for (int i = 0; i < 4; ++i) {
            const int h = ++at_ < text_.size() ? Hex(text_[at_]) : -1;
            if (h < 0) return false;
            code = code << 4 | static_cast<unsigned>(h);
          }
          AppendUtf8(out, code);  // surrogate pairs are not needed here
          break;
        }
        default:
          return false;
      }
    }
    return false;
  }
  bool Array(JsonValue* value, int depth) {
    value->kind = JsonValue::Kind::kArray;
    ++at_;
    if (Take(']')) return true;
    do {
      if (!Value(&value->items.emplace_back(), depth + 1)) return false;
    } while (Take(','));
    return Take(']');
  }
  bool Object(JsonValue* value, int depth) {
    value->kind = JsonValue::Kind::kObject;
    ++at_;
    if (Take('}')) return true;
    do {
      SkipSpace();
      std::string key;
      if (at_ >= text_.size() || text_[at_] != '"' || !String(&key) || !Take(':')) return false;
      if (!value->members.emplace(key, JsonValue{}).second) return false;  // a key twice
      if (!Value(&value->members[key], depth + 1)) return false;
    } while (Take(','));
    return Take('}');
  }

  std::string_view text_;
  size_t at_ = 0;
};

}  // namespace

const JsonValue& JsonValue::operator[](const std::string& key) const {
  static const JsonValue kNone;
  auto it = members.find(key);
  return it == members.end() ? kNone : it->second;
}

std::optional<JsonValue> ParseJson(std::string_view text) {
  Reader reader(text);
  JsonValue value;
  if (!reader.Value(&value, 0) || !reader.AtEnd()) return std::nullopt;
  return value;
}

}  // namespace orvo::test
