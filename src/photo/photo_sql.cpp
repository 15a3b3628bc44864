#include "photo/photo_sql.h"

#include <cstdlib>
#include <cstring>

#include "platform/log.h"
#include "platform/orvodb.h"

using photo_scoped::CText;

namespace {

// A failure is logged as the calling routine's own, as it was when each
// routine escaped its texts itself.
const char* BaseName(const std::source_location& where) {
  const char* slash = strrchr(where.file_name(), '/');
  return slash != nullptr ? slash + 1 : where.file_name();
}

CText Allocate(size_t size, const std::source_location& caller) {
  CText out(static_cast<char*>(malloc(size)));
  if (!out) orvo::Log("%s (%d) Failed to malloc(%d)", BaseName(caller), static_cast<int>(caller.line()), static_cast<int>(size));
  return out;
}

}  // namespace

CText QuoteSql(const char* text, std::source_location caller) {
  size_t length = strlen(text);
  CText out = Allocate(2 * length + 1, caller);
  if (!out) return nullptr;
  if (ORVODBEscapeString(out.get(), text, length) < 0) {
    orvo::Log("%s (%d) Failed to escape condition.", BaseName(caller), static_cast<int>(caller.line()));
    return nullptr;
  }
  return out;
}

CText EscapeLike(const char* quoted, std::source_location caller) {
  size_t size = 3 * strlen(quoted) + 1;
  CText out = Allocate(size, caller);
  if (!out) return nullptr;
  if (ORVODBEscapeBackslash(out.get(), size, quoted) < 0) {
    orvo::Log("%s (%d) Failed to escape condition.", BaseName(caller), static_cast<int>(caller.line()));
    return nullptr;
  }
  return out;
}

CText QuotedLike(const char* path, std::source_location caller) {
  CText quoted = QuoteSql(path, caller);
  if (!quoted) return nullptr;
  return EscapeLike(quoted.get(), caller);
}
