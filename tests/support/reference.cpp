#include "support/reference.h"

#include <fstream>

#include "formats_testutil.h"

namespace formats_test {

const nlohmann::json& ReferenceFiles() {
  static const nlohmann::json files = [] {
    nlohmann::json all = nlohmann::json::parse(std::ifstream(CorpusDir() + "/reference.json"), nullptr, false);
    return all.is_object() ? all.value("files", nlohmann::json()) : nlohmann::json();
  }();
  return files;
}

std::string Reference(const std::string& relative) {
  return ReferenceFiles().contains(relative) ? ReferenceFiles()[relative].dump() : "";
}

std::string RefText(const std::string& entry, std::initializer_list<const char*> keys, const std::string& tool,
                    bool agreed) {
  nlohmann::json field = nlohmann::json::parse(entry, nullptr, false);
  for (const char* key : keys) field = field.is_object() ? field.value(key, nlohmann::json()) : nlohmann::json();
  if (!field.is_object() || (agreed && field.value("agree", true) == false)) return "";
  nlohmann::json v = tool == "value" ? field.value("value", nlohmann::json())
                                     : field.value("by_tool", nlohmann::json::object()).value(tool, nlohmann::json());
  std::string text = v.is_null() ? "" : v.dump(-1, ' ', true);
  if (text.find('\\') != std::string::npos) return "";
  return v.is_string() ? text.substr(1, text.size() - 2) : text;
}

}  // namespace formats_test
