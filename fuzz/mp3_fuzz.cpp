// The whole MP3 path from memory: ID3v1, ID3v2 (2.2, 2.3, 2.4), the frame
// search and its confirmation, Xing and VBRI, and the merge into a record.
// Traps when a text field of the record is left unterminated.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "meta/metaid3.h"
#include "platform/log.h"

namespace {

void Discard(const char*, void*) {}

void CheckText(const char* field, size_t width, bool utf16) {
  if (!utf16) {
    if (memchr(field, '\0', width) == nullptr) __builtin_trap();
    return;
  }
  for (size_t i = 0; i + 1 < width; i += 2)
    if (field[i] == '\0' && field[i + 1] == '\0') return;
  __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  orvo::SetLogCapture(Discard, nullptr);
  MediaInfo rec;
  memset(&rec, 0, sizeof rec);
  if (ReadMp3InfoFromMemory(data, size, &rec) == 0) {
    CheckText(rec.title, sizeof rec.title, rec.title_is_utf16 != 0);
    CheckText(rec.artist, sizeof rec.artist, rec.artist_is_utf16 != 0);
    CheckText(rec.album, sizeof rec.album, rec.album_is_utf16 != 0);
    CheckText(rec.year, sizeof rec.year, rec.year_is_utf16 != 0);
    CheckText(rec.genre, sizeof rec.genre, rec.genre_is_utf16 != 0);
    if (rec.duration < 0.0f || rec.duration >= 43200.0f) __builtin_trap();
  }
  return 0;
}
