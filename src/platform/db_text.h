// Small helpers shared by the media and the photo database.
#pragma once

#include <string>
#include <string_view>

namespace orvo {

// `text` as a LIKE pattern that matches only itself: a backslash before
// '\', '%' and '_'. For statement parameters, so quotes stay as they are.
std::string LikeLiteral(std::string_view text);

// The path without trailing slashes (the root stays "/").
std::string_view WithoutTrailingSlash(std::string_view path);

}  // namespace orvo
