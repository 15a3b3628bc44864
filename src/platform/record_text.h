// Text fields of the daemon's line-per-entry files (the run status file and
// the failure record). A field may hold any bytes; written, it never holds a
// tab, a line break or another control byte, so one line is one entry and a
// tab always separates fields. Bytes of 0x80 and above stay as they are.
#pragma once

#include <string>
#include <string_view>

namespace orvo {

// Appends `text` to `out` with '\\' as "\\\\", tab as "\\t", newline as
// "\\n", carriage return as "\\r" and every other byte below 0x20, and 0x7f,
// as "\\xHH" (two lower-case hex digits).
void AppendEscapedField(std::string& out, std::string_view text);

// The bytes that AppendEscapedField wrote as `text`. False (and `out` left
// partly written) on an unknown or cut escape, or a raw control byte: a line
// damaged or torn that way is not an entry.
bool UnescapeField(std::string_view text, std::string* out);

}  // namespace orvo
