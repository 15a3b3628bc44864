// What the client prints for programs, parsed strictly: valid UTF-8, no raw control characters,
// nothing after the one value; a discarded value otherwise.
#pragma once

#include <nlohmann/json.hpp>
#include <string_view>

namespace orvo::test {

inline nlohmann::json ParseJson(std::string_view text) { return nlohmann::json::parse(text, nullptr, false); }

}  // namespace orvo::test
