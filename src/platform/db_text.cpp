#include "platform/db_text.h"

namespace orvo {

std::string LikeLiteral(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 8);
  for (char c : text) {
    if (c == '\\' || c == '%' || c == '_') out += '\\';
    out += c;
  }
  return out;
}

std::string_view WithoutTrailingSlash(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  return path;
}

}  // namespace orvo
