// The corpus's reference.json, parsed.
#pragma once

#include <nlohmann/json.hpp>

namespace formats_test {

// reference.json's "files" object; null when the corpus is absent.
const nlohmann::json& ReferenceFiles();

}  // namespace formats_test
