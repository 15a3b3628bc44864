// Helpers shared by the format tests: a scratch folder, ffmpeg-made media, the corpus's reference.json.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "handlers/formats.h"
#include "handlers/handlers.h"
#include "support/log_capture.h"

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
  // A path inside the folder, creating the folders on the way.
  std::string File(const std::string& relative) const {
    fs::path p = fs::path(path_) / relative;
    fs::create_directories(p.parent_path());
    return p.string();
  }

 private:
  std::string path_;
};

inline void WriteBytes(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

inline std::string ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// `v` as `bytes` big-endian bytes.
inline std::string Be(uint64_t v, int bytes) {
  std::string out;
  for (int i = bytes - 1; i >= 0; --i) out.push_back(static_cast<char>(v >> (8 * i)));
  return out;
}

// Runs Debian's ffmpeg quietly with `args`; true when it succeeded.
inline bool Ffmpeg(const std::string& args) {
  return std::system(("ffmpeg -nostdin -hide_banner -loglevel error -y " + args + " >/dev/null 2>&1").c_str()) == 0;
}

// The record `fill` makes of `path`, from a garbage-filled start so that a field it leaves unset shows.
inline MediaInfo Filled(int (*fill)(const char*, MediaInfo*), const std::string& path) {
  MediaInfo info;
  memset(&info, 0xAB, sizeof info);
  EXPECT_EQ(fill(path.c_str(), &info), 0) << path;
  return info;
}

// Bytes this process has read from files so far (rchar of /proc/self/io): what a
// reader cost, counted without a clock.
inline long long BytesReadSoFar() {
  std::ifstream io("/proc/self/io");
  std::string key;
  long long value = 0;
  while (io >> key >> value)
    if (key == "rchar:") return value;
  return -1;
}

inline bool HaveFfmpeg() { return std::system("ffmpeg -version >/dev/null 2>&1") == 0; }

#define REQUIRE_FFMPEG() \
  if (!::formats_test::HaveFfmpeg()) GTEST_SKIP() << "ffmpeg is not installed"

inline std::string CorpusDir() { return ORVO_CORPUS_DIR; }

// The corpus files of one folder, sorted; empty when the corpus is absent.
inline std::vector<std::string> CorpusFiles(const std::string& folder) {
  std::vector<std::string> files;
  std::error_code ec;
  for (const auto& e : fs::directory_iterator(fs::path(CorpusDir()) / folder, ec))
    if (e.is_regular_file()) files.push_back(e.path().string());
  std::sort(files.begin(), files.end());
  return files;
}

// reference.json's object for a corpus file ("flac/foo.flac") as text up to the next file's key, or "".
inline std::string Reference(const std::string& relative) {
  static const std::string json = [] {
    std::stringstream text;
    text << std::ifstream(CorpusDir() + "/reference.json").rdbuf();
    return text.str();
  }();
  size_t at = json.find("\n  \"" + relative + "\": {");
  if (at == std::string::npos) return "";
  return json.substr(at, json.find("\n  \"", at + 4) - at);
}

// The "value" (or `tool`'s) at `keys` in a reference text; "" if absent, null, escaped, or (`agreed`) disputed.
inline std::string RefText(const std::string& entry, std::initializer_list<const char*> keys,
                           const std::string& tool = "value", bool agreed = false) {
  size_t at = 0;
  for (const char* key : keys)
    if ((at = entry.find(std::string("\"") + key + "\": {", at)) == std::string::npos) return "";
  size_t line = entry.rfind('\n', at) + 1;  // the closing brace is indented as the key
  std::string close(1, '\n');
  close.append(entry, line, at - line).push_back('}');
  std::string object = entry.substr(at, entry.find(close, at) - at);
  size_t v = object.find("\"" + tool + "\": ");
  if (v == std::string::npos || (agreed && object.find("\"agree\": false") != std::string::npos)) return "";
  std::string token = object.substr(v + tool.size() + 4, object.find('\n', v) - v - tool.size() - 4);
  if (!token.empty() && token.back() == ',') token.pop_back();
  if (token.empty() || token == "null" || token.find('\\') != std::string::npos) return "";
  return token[0] == '"' ? token.substr(1, token.size() - 2) : token;
}

// A field's number where the tools agree (or one reported it), or `tool`'s; NaN when missing.
inline double Agreed(const std::string& entry, const char* field, const std::string& tool = "value") {
  std::string text = RefText(entry, {field}, tool, tool == "value");
  char* end = nullptr;
  double number = strtod(text.c_str(), &end);
  return end == text.c_str() ? NAN : number;
}

}  // namespace formats_test
