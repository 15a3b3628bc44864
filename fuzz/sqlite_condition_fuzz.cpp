// Statement text of any bytes through the embedded backend, which rewrites
// boolean literals and puts an index range in front of prefix LIKEs: no
// input may crash it. And a prefix LIKE built the way the photo code builds
// it (quoted, then LIKE-escaped) must find exactly the paths that start with
// the prefix, whatever bytes the prefix holds.
#include <stdlib.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>

#include "platform/orvodb.h"

namespace {

ORVODB* Database() {
  static ORVODB* db = [] {
    static char folder[] = "/tmp/orvo-sqlite-fuzz.XXXXXX";
    if (mkdtemp(folder) == nullptr) abort();
    setenv("ORVO_PHOTO_DB", (std::string("sqlite:") + folder + "/photo.db").c_str(), 1);
    return OrvoDBConnect(OrvoDatabase::kPhoto);
  }();
  return db;
}

std::string Quoted(const std::string& text) {
  std::string out(2 * text.size() + 1, '\0');
  int n = ORVODBEscapeString(out.data(), text.c_str(), text.size());
  if (n < 0) abort();
  out.resize(n);
  return out;
}

std::string LikeEscaped(const std::string& quoted) {
  std::string out(3 * quoted.size() + 1, '\0');
  int n = ORVODBEscapeBackslash(out.data(), out.size(), quoted.c_str());
  if (n < 0) abort();
  out.resize(n);
  return out;
}

int Execute(const std::string& sql, ORVODBResult** result = nullptr) {
  return ORVODBExecute(Database(), sql.c_str(), result);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Paths are C strings: a NUL byte becomes another byte.
  std::string input(reinterpret_cast<const char*>(data), size);
  std::replace(input.begin(), input.end(), '\0', '\x01');

  ORVODBResult* any = nullptr;
  Execute("select path from video_desc where " + input, &any);
  ORVODBFreeResult(any);

  // Paths around the prefix in byte order: itself, below it, longer, and
  // just above it (last byte raised, or 0xFF bytes appended).
  std::set<std::string> paths = {input, input + "/x", input + "\xff", input + "\xff\xff/y",
                                 input.substr(0, input.size() / 2)};
  const unsigned char last = input.empty() ? 0 : static_cast<unsigned char>(input.back());
  if (!input.empty() && last < 0xFF) {
    std::string above = input;
    above.back() = static_cast<char>(last + 1);
    paths.insert(above);
  }
  if (!input.empty() && last > 1) {
    std::string below = input;
    below.back() = static_cast<char>(last - 1);
    paths.insert(below + "z");
  }
  if (Execute("delete from video_desc") < 0) abort();
  for (const std::string& path : paths) {
    if (path.empty()) continue;
    if (Execute("insert into video_desc (path) values ('" + Quoted(path) + "')") != 1) abort();
  }

  ORVODBResult* rows = nullptr;
  if (Execute("select path from video_desc where path like '" + LikeEscaped(Quoted(input)) + "%'", &rows) < 0)
    abort();
  std::set<std::string> found;
  for (int i = 0; i < ORVODBRowCount(rows); ++i) found.insert(ORVODBFetchField(rows, i, "path"));
  ORVODBFreeResult(rows);

  std::set<std::string> expected;
  for (const std::string& path : paths) {
    if (!path.empty() && path.compare(0, input.size(), input) == 0) expected.insert(path);
  }
  if (found != expected) __builtin_trap();
  return 0;
}
