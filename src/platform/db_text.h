// Small helpers shared by the media and the photo database.
#pragma once

#include <charconv>
#include <string>
#include <string_view>

namespace orvo {

// `text` as a LIKE pattern that matches only itself: a backslash before
// '\', '%' and '_'. For statement parameters, so quotes stay as they are.
std::string LikeLiteral(std::string_view text);

// The path without trailing slashes (the root stays "/").
std::string_view WithoutTrailingSlash(std::string_view path);

// A number as statement text, without allocating.
struct DecimalText {
  char text[32];
};
inline DecimalText Decimal(long long value) {
  DecimalText n;
  *std::to_chars(n.text, n.text + sizeof n.text - 1, value).ptr = '\0';
  return n;
}

}  // namespace orvo
