// A strict JSON reader for checking what the client prints for programs:
// the whole text must be one value, strings valid UTF-8 without raw control
// characters.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orvo::test {

struct JsonValue {
  enum class Kind { kNull, kBool, kNumber, kString, kArray, kObject };
  Kind kind = Kind::kNull;
  bool boolean = false;
  double number = 0;
  std::string text;
  std::vector<JsonValue> items;
  std::map<std::string, JsonValue> members;

  bool IsNull() const { return kind == Kind::kNull; }
  // The member `key` of an object; a null value when there is none.
  const JsonValue& operator[](const std::string& key) const;
};

std::optional<JsonValue> ParseJson(std::string_view text);

}  // namespace orvo::test
