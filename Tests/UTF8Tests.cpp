#include "Platform/UTF8.h"

#include <gtest/gtest.h>

namespace quorvane {
namespace {

TEST(UTF8, EachMaximalSubpartBecomesOneReplacement) {
  const std::string r = "\uFFFD";
  const std::pair<std::string, std::string> rows[] = {
      {"Mac14,2 \u00E9\u2014\U0001F300", "Mac14,2 \u00E9\u2014\U0001F300"},
      {"\xDF\xBF\xEF\xBF\xBF\xF4\x8F\xBF\xBF",
       "\xDF\xBF\xEF\xBF\xBF\xF4\x8F\xBF\xBF"},     // the last of each length
      {"a\x80\xBF", "a" + r + r},                   // trail bytes alone
      {"\xC0\xAF\xE0\x9F\xBF", r + r + r + r + r},  // overlong
      {"\xED\xA0\x80\xF4\x90\x80\x80",
       r + r + r + r + r + r + r},  // a surrogate, and past the last code point
      {"\xF5\xFF", r + r},
      {"\xF1\x80\xE1\x80\x80", r + "\u1000"},  // cut short by another character
      {"x\xF0\x9F\x8C", "x" + r},              // and by the end
  };
  for (const auto& [text, replaced] : rows) {
    EXPECT_EQ(replacingInvalidUTF8(text), replaced);
    EXPECT_EQ(isValidUTF8(text), text == replaced) << replaced;
  }
}

}  // namespace
}  // namespace quorvane
