// Text that goes into the databases' text columns is UTF-8. Tag readers hand
// over raw bytes: UTF-16 with its byte-order mark, UTF-8, or Latin-1 (the
// single-byte encoding of ID3). These helpers turn any of them into UTF-8
// that fits a fixed field.
#pragma once

#include <cstddef>
#include <string_view>

namespace orvo {

// True when `text` is well-formed UTF-8 (no overlong forms, no surrogates,
// nothing above U+10FFFF).
bool IsValidUtf8(std::string_view text);

// Converts the field `in` (at most `inSize` bytes; it ends at its first NUL,
// or at the first 00 00 code unit when `isUtf16`) into UTF-8 in `out`:
// UTF-16 is decoded by its byte-order mark (no mark: empty), valid UTF-8 is
// kept, anything else is read as Latin-1. `out` receives at most
// `outSize` - 1 bytes plus a NUL, cut only between whole characters.
// Returns the output length.
size_t ToUtf8Field(const char* in, size_t inSize, bool isUtf16, char* out, size_t outSize);

// Copies tag or name text (up to its first NUL) into a record's fixed field
// of `size` bytes, NUL included. Valid UTF-8 is cut only between whole
// characters; other text (Latin-1, converted when the record is saved) is
// cut at the field's width byte for byte. Returns the length copied.
size_t CopyTextField(char* field, size_t size, std::string_view text);

}  // namespace orvo
