// The quoted form that "%r" log arguments take: the exact text for each kind
// of character, and no two different byte strings sharing one quoted form.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "storage/log.hpp"

namespace {

using marsk_quorvi::storage::detail::quoted_repr;

TEST(QuotedRepr, Forms) {
  const std::pair<std::string, std::string> cases[] = {
      {"[1, 2]", "'[1, 2]'"},
      {"", "''"},
      {"it's", R"("it's")"},
      {R"(say "hi")", R"('say "hi"')"},
      {R"(a'b"c)", R"('a\'b"c')"},
      {"back\\slash", R"('back\\slash')"},
      {"a\nb\tc\rd", R"('a\nb\tc\rd')"},
      {std::string("\x00\x01\x1f\x7f", 4), R"('\x00\x01\x1f\x7f')"},
      {"caf\xc3\xa9", "'caf\xc3\xa9'"},
      {"\xc2\x85\xc2\xa0\xc2\xad", R"('\x85\xa0\xad')"},
      {"\xe2\x80\xa8\xef\xbb\xbf", R"('\u2028\ufeff')"},
      {"\xf0\x9f\x98\x80", "'\xf0\x9f\x98\x80'"},
      // Bytes that are not valid UTF-8: a stray continuation byte, a lead
      // byte cut short, an overlong form and an encoded surrogate.
      {"\x85", R"('\udc85')"},
      {"\xf0\x9f\x98", R"('\udcf0\udc9f\udc98')"},
      {"\xc0\xaf", R"('\udcc0\udcaf')"},
      {"\xed\xa0\x80!", R"('\udced\udca0\udc80!')"},
  };
  std::set<std::string> forms;
  for (const auto& [text, expected] : cases) {
    EXPECT_EQ(quoted_repr(text), expected) << expected;
    forms.insert(quoted_repr(text));
  }
  // A stray byte and the control character of the same number read apart.
  EXPECT_EQ(forms.size(), std::size(cases));
  EXPECT_NE(quoted_repr("\x85"), quoted_repr("\xc2\x85"));
}

}  // namespace
