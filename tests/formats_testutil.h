// Helpers shared by the format tests: a scratch folder, test media made with
// ffmpeg, and the corpus's reference.json.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace formats_test {

namespace fs = std::filesystem;

// A private folder under the system's temporary folder, removed afterwards.
class TempDir {
 public:
  TempDir() {
    std::string tmpl = (fs::temp_directory_path() / "orvo-formats-XXXXXX").string();
    path_ = mkdtemp(tmpl.data());
  }
  ~TempDir() {
    std::error_code ec;
    fs::remove_all(path_, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  // A path inside the folder, creating the folders on the way.
  std::string File(const std::string& relative) const {
    fs::path p = fs::path(path_) / relative;
    fs::create_directories(p.parent_path());
    return p.string();
  }

 private:
  std::string path_;
};

inline void WriteBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream out(path, std::ios::binary);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

inline std::vector<uint8_t> ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

// Runs Debian's ffmpeg quietly with `args`; true when it succeeded.
inline bool Ffmpeg(const std::string& args) {
  std::string cmd = "ffmpeg -nostdin -hide_banner -loglevel error -y " + args + " >/dev/null 2>&1";
  return std::system(cmd.c_str()) == 0;
}

inline bool HaveFfmpeg() { return std::system("ffmpeg -version >/dev/null 2>&1") == 0; }

#define REQUIRE_FFMPEG() \
  if (!::formats_test::HaveFfmpeg()) GTEST_SKIP() << "ffmpeg is not installed"

inline std::string CorpusDir() { return ORVO_CORPUS_DIR; }

// The corpus files of one folder, sorted; empty when the corpus is absent.
inline std::vector<std::string> CorpusFiles(const std::string& folder) {
  std::vector<std::string> files;
  std::error_code ec;
  for (const auto& e : fs::directory_iterator(fs::path(CorpusDir()) / folder, ec)) {
    if (e.is_regular_file()) files.push_back(e.path().string());
  }
  std::sort(files.begin(), files.end());
  return files;
}

#define REQUIRE_CORPUS(folder)                                                   \
  if (::formats_test::CorpusFiles(folder).empty())                               \
  GTEST_SKIP() << "corpus folder " << folder << " is absent under " ORVO_CORPUS_DIR

// reference.json's object for a corpus file ("flac/foo.flac"), as text from
// its key to the next file's key; "" when absent.
inline std::string Reference(const std::string& relative) {
  static const std::string json = [] {
    std::ifstream in(CorpusDir() + "/reference.json");
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }();
  size_t at = json.find("\n  \"" + relative + "\": {");
  if (at == std::string::npos) return "";
  size_t end = json.find("\n  \"", at + 4);
  return json.substr(at, end == std::string::npos ? std::string::npos : end - at);
}

// The number after `"key": ` at or after `from` in `text`; NaN when it is
// missing or not a number.
inline double NumberAfter(const std::string& text, const std::string& key, size_t from = 0) {
  size_t at = text.find("\"" + key + "\": ", from);
  if (at == std::string::npos) return NAN;
  const char* start = text.c_str() + at + key.size() + 4;
  char* end = nullptr;
  double v = strtod(start, &end);
  return end == start ? NAN : v;
}

// The field's "value" when the tools agree on it (or only one reported it);
// NaN otherwise.
inline double Agreed(const std::string& entry, const std::string& field) {
  size_t at = entry.find("\"" + field + "\": {");
  if (at == std::string::npos) return NAN;
  size_t end = entry.find("\n   }", at);
  std::string object = entry.substr(at, end == std::string::npos ? std::string::npos : end - at);
  if (object.find("\"agree\": false") != std::string::npos) return NAN;
  return NumberAfter(object, "value");
}

// What one tool reported for a field.
inline double ByTool(const std::string& entry, const std::string& field, const std::string& tool) {
  size_t at = entry.find("\"" + field + "\": {");
  return at == std::string::npos ? NAN : NumberAfter(entry.substr(at, entry.find("\n   }", at) - at), tool);
}

inline bool ToolFailed(const std::string& entry) {
  return entry.find("\"ffprobe_failed\": true") != std::string::npos;
}

inline std::string Relative(const std::string& path) {
  return fs::path(path).parent_path().filename().string() + "/" + fs::path(path).filename().string();
}

}  // namespace formats_test
