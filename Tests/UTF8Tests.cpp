#include "Platform/UTF8.h"

#include <gtest/gtest.h>

namespace quorvane {

TEST(UTF8, EachMaximalSubpartOfInvalidUTF8BecomesOneReplacement) {
  const std::string r = "\uFFFD";
  // The first and the last character of each length above one byte.
  const std::string first = "\xC2\x80\xE0\xA0\x80\xF0\x90\x80\x80";
  const std::string last = "\xDF\xBF\xEF\xBF\xBF\xF4\x8F\xBF\xBF";
  const std::pair<std::string, std::string> rows[] = {
      {first, first},
      {last, last},
      {"a\x80\xBF", "a" + r + r},                                   // trail bytes only
      {"\xC0\xAF\xC1\xBF\xE0\x9F\xBF", r + r + r + r + r + r + r},  // overlong
      {"\xED\xA0\x80\xF4\x90\x80\x80", r + r + r + r + r + r + r},  // surrogate; past the last
      {"\xF5\xFF", r + r},
      {"\xF1\x80\xE1\x80\x80", r + "\u1000"},  // truncated by another character
      {"x\xF0\x9F\x8C", "x" + r},              // truncated by the end
  };
  for (const auto& [text, replaced] : rows) {
    EXPECT_EQ(replacingInvalidUTF8(text), replaced);
    EXPECT_EQ(isValidUTF8(text), text == replaced) << replaced;
  }
}

TEST(UTF8, EachHalfOfASurrogatePairBecomesOneReplacement) {
  EXPECT_EQ(toUTF8(u"\u007F\u0080\u07FF\u0800\uD7FF\uE000\uFFFF\U00010000\U0010FFFF"),
            "\u007F\u0080\u07FF\u0800\uD7FF\uE000\uFFFF\U00010000\U0010FFFF");
  const char16_t halves[] = {0xDC00, 0xD800, 0xD800, 0xDFFF, 0xDBFF, 'x', 0xD800};
  EXPECT_EQ(toUTF8({halves, std::size(halves)}), "\uFFFD\uFFFD\U000103FF\uFFFDx\uFFFD");
}

}  // namespace quorvane
