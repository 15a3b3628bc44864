// Helpers shared by the format tests: a scratch folder, ffmpeg-made media, the corpus's reference.json.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

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

// `bytes` at `path`, its folders made, modified at `mtime` unless that is 0.
inline void WriteBytes(const std::string& path, const std::string& bytes, time_t mtime = 0) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << bytes;
  const timespec times[2] = {{mtime, 0}, {mtime, 0}};
  EXPECT_TRUE(mtime == 0 || utimensat(AT_FDCWD, path.c_str(), times, 0) == 0) << path;
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

// reference.json's entry for a corpus file ("flac/foo.flac") as JSON text, or "" (support/reference.cpp).
std::string Reference(const std::string& relative);

// The "value" (or `tool`'s) at `keys` in a reference entry as text; "" if absent, null, not ASCII-only
// text, or (`agreed`) disputed.
std::string RefText(const std::string& entry, std::initializer_list<const char*> keys,
                    const std::string& tool = "value", bool agreed = false);

// A field's number where the tools agree (or one reported it), or `tool`'s; NaN when missing.
inline double Agreed(const std::string& entry, const char* field, const std::string& tool = "value") {
  std::string text = RefText(entry, {field}, tool, tool == "value");
  char* end = nullptr;
  double number = strtod(text.c_str(), &end);
  return end == text.c_str() ? NAN : number;
}

}  // namespace formats_test
