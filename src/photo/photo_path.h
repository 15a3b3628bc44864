// Text helpers shared by the picture handlers: bounded copies into fixed
// fields and the name pieces of a picture's path.
#pragma once

#include <cstddef>
#include <cstring>

#include "platform/text_encoding.h"

namespace photo_path {

// Copies `text` into the fixed field, cut to the field and NUL-terminated:
// paths and other bytes kept as they are.
template <size_t N>
void CopyText(char (&field)[N], const char* text) {
  size_t length = strnlen(text, N - 1);
  memcpy(field, text, length);
  field[length] = '\0';
}

// The same for a text column's field (a name, title or album): cut between
// whole characters when the text is UTF-8.
template <size_t N>
void CopyName(char (&field)[N], const char* text) {
  orvo::CopyTextField(field, N, text);
}

// The last path component, or the whole path when it has no '/'.
inline const char* FileName(const char* path) {
  const char* slash = strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

// Ends the text at its last `c`, when it has one.
inline void CutAtLast(char* text, char c) {
  char* found = strrchr(text, c);
  if (found != nullptr) *found = '\0';
}

// The name of the folder that holds the file: the component before the last
// one. Left empty when the path has fewer than two '/' (a relative path such
// as "a/b.jpg"). Returns -1 when the copy, cut to the field, lost its '/'
// (a holding folder name longer than the field): the caller logs it and
// keeps what was copied.
template <size_t N>
int HoldingFolder(const char* path, char (&album)[N]) {
  const char* last = strrchr(path, '/');
  if (last == nullptr) return 0;
  const char* start = last;
  while (start > path) {
    --start;
    if (*start == '/') break;
  }
  if (*start != '/' || start == last) return 0;
  CopyName(album, start + 1);
  char* cut = strrchr(album, '/');
  if (cut == nullptr) return -1;
  *cut = '\0';
  return 0;
}

}  // namespace photo_path
