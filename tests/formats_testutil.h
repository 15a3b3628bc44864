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
#include <map>
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

// Just enough JSON to read reference.json.
struct Json {
  enum Kind { kNull, kBool, kNumber, kString, kArray, kObject } kind = kNull;
  bool boolean = false;
  double number = 0;
  std::string text;
  std::vector<Json> items;
  std::map<std::string, Json> fields;

  const Json& operator[](const std::string& key) const {
    static const Json null;
    auto it = fields.find(key);
    return it == fields.end() ? null : it->second;
  }
  bool IsNull() const { return kind == kNull; }
};

class JsonParser {
 public:
  explicit JsonParser(const std::string& s) : s_(s) {}
  Json Parse() {
    Space();
    Json v;
    char c = Peek();
    if (c == '{') {
      v.kind = Json::kObject;
      ++i_;
      Space();
      if (Peek() == '}') { ++i_; return v; }
      for (;;) {
        Space();
        std::string key = String();
        Space();
        ++i_;  // ':'
        v.fields[key] = Parse();
        Space();
        if (s_[i_++] == '}') return v;
      }
    }
    if (c == '[') {
      v.kind = Json::kArray;
      ++i_;
      Space();
      if (Peek() == ']') { ++i_; return v; }
      for (;;) {
        v.items.push_back(Parse());
        Space();
        if (s_[i_++] == ']') return v;
      }
    }
    if (c == '"') {
      v.kind = Json::kString;
      v.text = String();
      return v;
    }
    if (s_.compare(i_, 4, "null") == 0) { i_ += 4; return v; }
    if (s_.compare(i_, 4, "true") == 0) { i_ += 4; v.kind = Json::kBool; v.boolean = true; return v; }
    if (s_.compare(i_, 5, "false") == 0) { i_ += 5; v.kind = Json::kBool; return v; }
    v.kind = Json::kNumber;
    size_t used = 0;
    v.number = std::stod(s_.substr(i_, 40), &used);
    i_ += used;
    return v;
  }

 private:
  char Peek() const { return i_ < s_.size() ? s_[i_] : '\0'; }
  void Space() { while (i_ < s_.size() && isspace(static_cast<unsigned char>(s_[i_]))) ++i_; }
  std::string String() {
    std::string out;
    ++i_;  // opening quote
    while (i_ < s_.size() && s_[i_] != '"') {
      char c = s_[i_++];
      if (c != '\\') { out += c; continue; }
      char e = s_[i_++];
      switch (e) {
        case 'n': out += '\n'; break;
        case 't': out += '\t'; break;
        case 'r': out += '\r'; break;
        case 'b': out += '\b'; break;
        case 'f': out += '\f'; break;
        case 'u': {
          unsigned cp = std::stoul(s_.substr(i_, 4), nullptr, 16);
          i_ += 4;
          if (cp >= 0xD800 && cp < 0xDC00 && s_.compare(i_, 2, "\\u") == 0) {
            unsigned lo = std::stoul(s_.substr(i_ + 2, 4), nullptr, 16);
            i_ += 6;
            cp = 0x10000 + ((cp - 0xD800) << 10) + (lo - 0xDC00);
          }
          if (cp < 0x80) {
            out += static_cast<char>(cp);
          } else if (cp < 0x800) {
            out += static_cast<char>(0xC0 | (cp >> 6));
            out += static_cast<char>(0x80 | (cp & 0x3F));
          } else if (cp < 0x10000) {
            out += static_cast<char>(0xE0 | (cp >> 12));
            out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (cp & 0x3F));
          } else {
            out += static_cast<char>(0xF0 | (cp >> 18));
            out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (cp & 0x3F));
          }
          break;
        }
        default: out += e;
      }
    }
    ++i_;  // closing quote
    return out;
  }
  const std::string& s_;
  size_t i_ = 0;
};

// reference.json's entry for a corpus file ("flac/foo.flac"); null when absent.
inline const Json& Reference(const std::string& relative) {
  static const Json* root = [] {
    std::ifstream in(CorpusDir() + "/reference.json");
    std::stringstream ss;
    ss << in.rdbuf();
    std::string text = ss.str();
    return new Json(text.empty() ? Json() : JsonParser(text).Parse());
  }();
  return (*root)["files"][relative];
}

// The value of a reference field when the tools agree on it (or only one
// reported it); null otherwise.
inline const Json& Agreed(const Json& field) {
  static const Json null;
  if (field.IsNull() || field["value"].IsNull()) return null;
  const Json& agree = field["agree"];
  if (agree.kind == Json::kBool && !agree.boolean) return null;
  return field["value"];
}

inline std::string Relative(const std::string& path) {
  return fs::path(path).parent_path().filename().string() + "/" + fs::path(path).filename().string();
}

}  // namespace formats_test
