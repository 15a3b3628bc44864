// Tag text into UTF-8 fields, never a byte past the field or half a character.
#include <gtest/gtest.h>

#include "platform/text_encoding.h"

namespace {

struct Case {
  std::string in;
  bool utf16;
  size_t room;
  std::string want;
};

TEST(TextField, ConvertedToUtf8WithinTheFieldWithoutSplittingACharacter) {
  const Case cases[] = {
      {std::string("\xFF\xFE" "A\0\xE9\0\0\0junk", 12), true, 64, "A\xc3\xa9"},  // little-endian
      {std::string("\xFE\xFF\0A\0\xE9\0\0", 8), true, 64, "A\xc3\xa9"},          // big-endian
      {std::string("\xFF\xFE\x3D\xD8\x00\xDE", 6), true, 64, "\xf0\x9f\x98\x80"},  // surrogate pair
      {std::string("\xFF\xFE\x00\xDE" "a\0", 6), true, 64, "\xef\xbf\xbd" "a"},    // lone surrogate
      {std::string("\xFF\xFE" "A\0B", 5), true, 64, "A"},                         // odd trailing byte
      {"Caf\xc3\xa9 \xe4\xb8\xad \xf0\x9f\x98\x80", false, 64, "Caf\xc3\xa9 \xe4\xb8\xad \xf0\x9f\x98\x80"},
      {"Caf\xe9", false, 64, "Caf\xc3\xa9"},                                     // Latin-1
      {"\xc0\xaf", false, 64, "\xc3\x80\xc2\xaf"},                               // overlong: not UTF-8
      {"\xed\xa0\x80", false, 64, "\xc3\xad\xc2\xa0\xc2\x80"},                   // encoded surrogate
      {std::string("ab\0\xff", 4), false, 64, "ab"},                             // ends at its NUL
      {"ab\xe4\xb8\xad\xe4\xb8\xad", false, 6, "ab\xe4\xb8\xad"},
      {"abcd\xe9", false, 6, "abcd"},  // Latin-1 grows to two bytes
      {"abc\xe9", false, 6, "abc\xc3\xa9"},
      {"x", false, 1, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.in);
    std::string out(c.room + 8, '#');  // guard bytes after the field
    size_t n = orvo::ToUtf8Field(c.in.data(), c.in.size(), c.utf16, out.data(), c.room);
    ASSERT_LT(n, c.room);
    EXPECT_EQ(out[n], '\0');
    EXPECT_EQ(out.substr(c.room), std::string(8, '#')) << "wrote past the field";
    EXPECT_EQ(out.substr(0, n), c.want);
  }
  char none = 'z';
  EXPECT_EQ(orvo::ToUtf8Field("abc", 3, false, &none, 0), 0u);
  EXPECT_EQ(none, 'z');
}

}  // namespace
