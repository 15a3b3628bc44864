// Tag text into UTF-8 fields: UTF-16 by its byte-order mark, UTF-8 kept,
// Latin-1 converted, and never a byte past the field or half a character.
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "platform/text_encoding.h"

namespace {

std::string Convert(const std::string& in, bool utf16, size_t outSize = 64) {
  std::string out(outSize + 8, '#');  // guard bytes after the field
  size_t n = orvo::ToUtf8Field(in.data(), in.size(), utf16, out.data(), outSize);
  EXPECT_EQ(out[n], '\0');
  EXPECT_LT(n, outSize);
  EXPECT_EQ(out.substr(outSize), std::string(8, '#')) << "wrote past the field";
  return out.substr(0, n);
}

TEST(Utf16Field, DecodedByEitherByteOrderMark) {
  EXPECT_EQ(Convert(std::string("\xFF\xFE" "A\0\xE9\0\0\0junk", 12), true), "A\xc3\xa9");
  EXPECT_EQ(Convert(std::string("\xFE\xFF\0A\0\xE9\0\0", 8), true), "A\xc3\xa9");
  // A surrogate pair is one character; a lone surrogate becomes U+FFFD.
  EXPECT_EQ(Convert(std::string("\xFF\xFE\x3D\xD8\x00\xDE", 6), true), "\xf0\x9f\x98\x80");
  EXPECT_EQ(Convert(std::string("\xFF\xFE\x00\xDE" "a\0", 6), true), "\xef\xbf\xbd" "a");
  EXPECT_EQ(Convert(std::string("\xFF\xFE\x3D\xD8", 4), true), "\xef\xbf\xbd");
}

TEST(Utf16Field, WithoutAMarkOrTerminatorStaysInsideTheField) {
  EXPECT_EQ(Convert(std::string("A\0B\0", 4), true), "");
  EXPECT_EQ(Convert(std::string("\xFF\xFE" "A\0B", 5), true), "A");  // odd trailing byte
  EXPECT_EQ(Convert(std::string("\xFF\xFE", 2), true), "");
  EXPECT_EQ(Convert(std::string(), true), "");
}

TEST(ByteField, ValidUtf8IsKeptAndAnythingElseIsLatin1) {
  EXPECT_EQ(Convert("plain", false), "plain");
  EXPECT_EQ(Convert("Caf\xc3\xa9 \xe4\xb8\xad \xf0\x9f\x98\x80", false),
            "Caf\xc3\xa9 \xe4\xb8\xad \xf0\x9f\x98\x80");
  EXPECT_EQ(Convert("Caf\xe9", false), "Caf\xc3\xa9");
  // Overlong forms and encoded surrogates are not UTF-8.
  EXPECT_EQ(Convert("\xc0\xaf", false), "\xc3\x80\xc2\xaf");
  EXPECT_EQ(Convert("\xed\xa0\x80", false), "\xc3\xad\xc2\xa0\xc2\x80");
  EXPECT_EQ(Convert("\xe4\xb8", false), "\xc3\xa4\xc2\xb8");  // cut short
  // The field ends at its NUL even when bytes follow.
  EXPECT_EQ(Convert(std::string("ab\0\xff", 4), false), "ab");
}

TEST(ByteField, TruncationNeverSplitsACharacter) {
  // Five bytes of room: "ab" + a 3-byte character fits, a second one does not.
  EXPECT_EQ(Convert("ab\xe4\xb8\xad\xe4\xb8\xad", false, 6), "ab\xe4\xb8\xad");
  EXPECT_EQ(Convert("abcd\xe4\xb8\xad", false, 6), "abcd");
  EXPECT_EQ(Convert("abcd\xe9", false, 6), "abcd");  // Latin-1 grows to two bytes
  EXPECT_EQ(Convert("abc\xe9", false, 6), "abc\xc3\xa9");
  EXPECT_EQ(Convert(std::string("\xFF\xFE\x3D\xD8\x00\xDE", 6), true, 4), "");
  EXPECT_EQ(Convert("x", false, 1), "");
  char none = 'z';
  EXPECT_EQ(orvo::ToUtf8Field("abc", 3, false, &none, 0), 0u);
  EXPECT_EQ(none, 'z');
}

}  // namespace
