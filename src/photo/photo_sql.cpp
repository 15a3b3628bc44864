#include "photo/photo_sql.h"

#include <cstdlib>
#include <cstring>

#include "platform/log.h"
#include "platform/orvodb.h"

using photo_scoped::CText;

namespace {

// A failure is logged as the calling routine's own, as it was when each
// routine escaped its texts itself.
const char* BaseName(const char* file) {
  const char* slash = strrchr(file, '/');
  return slash != nullptr ? slash + 1 : file;
}

CText Allocate(size_t size, const char* file, int line) {
  CText out(static_cast<char*>(malloc(size)));
  if (!out) orvo::Log("%s (%d) Failed to malloc(%d)", BaseName(file), line, static_cast<int>(size));
  return out;
}

}  // namespace

CText QuoteSql(const char* text, const char* file, int line) {
  size_t length = strlen(text);
  CText out = Allocate(2 * length + 1, file, line);
  if (!out) return nullptr;
  if (ORVODBEscapeString(out.get(), text, length) < 0) {
    orvo::Log("%s (%d) Failed to escape condition.", BaseName(file), line);
    return nullptr;
  }
  return out;
}

CText EscapeLike(const char* quoted, const char* file, int line) {
  size_t size = 3 * strlen(quoted) + 1;
  CText out = Allocate(size, file, line);
  if (!out) return nullptr;
  if (ORVODBEscapeBackslash(out.get(), size, quoted) < 0) {
    orvo::Log("%s (%d) Failed to escape condition.", BaseName(file), line);
    return nullptr;
  }
  return out;
}

CText QuotedLike(const char* path, const char* file, int line) {
  CText quoted = QuoteSql(path, file, line);
  if (!quoted) return nullptr;
  return EscapeLike(quoted.get(), file, line);
}
