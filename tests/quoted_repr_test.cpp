// The quoted form that "%r" log arguments take: the exact text for each kind
// of character, the same as Python's repr() of the text.
#include <gtest/gtest.h>

#include <string>

#include "storage/log.hpp"

namespace {

using marsk_quorvi::storage::detail::quoted_repr;

TEST(QuotedRepr, Forms) {
  const std::pair<std::string, std::string> cases[] = {
      {"[1, 2]", "'[1, 2]'"}, {"", "''"}, {"it's", R"("it's")"}, {R"(say "hi")", R"('say "hi"')"},
      {R"(a'b"c)", R"('a\'b"c')"}, {"back\\slash", R"('back\\slash')"}, {"a\nb\tc\rd", R"('a\nb\tc\rd')"},
      {std::string("\x00\x01\x1f\x7f", 4), R"('\x00\x01\x1f\x7f')"},
      // Printable beyond ASCII: a letter, an emoji, the last variation selector.
      {"caf\xc3\xa9 \xf0\x9f\x98\x80 \xf3\xa0\x87\xaf", "'caf\xc3\xa9 \xf0\x9f\x98\x80 \xf3\xa0\x87\xaf'"},
      // Controls, separators and format characters: NEL, no-break space, soft
      // hyphen; bidi override and isolate, word joiner; em, ideographic, line
      // separator; byte order mark; language tag.
      {"\xc2\x85\xc2\xa0\xc2\xad", R"('\x85\xa0\xad')"},
      {"\xe2\x80\xae\xe2\x81\xa6\xe2\x81\xa0", R"('\u202e\u2066\u2060')"},
      {"\xe2\x80\x83\xe3\x80\x80\xe2\x80\xa8\xef\xbb\xbf\xf3\xa0\x80\x81", R"('\u2003\u3000\u2028\ufeff\U000e0001')"},
      // Unassigned U+0378..U+0379 between two letters; a noncharacter, private
      // use in the first and in plane 15, the last code point.
      {"\xcd\xb7\xcd\xb8\xcd\xb9\xcd\xba", "'\xcd\xb7\\u0378\\u0379\xcd\xba'"},
      {"\xef\xbf\xbf\xee\x80\x80\xf3\xb0\x80\x80\xf4\x8f\xbf\xbf", R"('\uffff\ue000\U000f0000\U0010ffff')"},
      // Bytes that are not valid UTF-8, which read apart from the control
      // character of the same number: a stray continuation byte, a lead byte
      // cut short, an overlong form and an encoded surrogate.
      {"\x85", R"('\udc85')"}, {"\xf0\x9f\x98", R"('\udcf0\udc9f\udc98')"}, {"\xc0\xaf", R"('\udcc0\udcaf')"},
      {"\xed\xa0\x80!", R"('\udced\udca0\udc80!')"},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(quoted_repr(text), expected) << expected;
}

}  // namespace
