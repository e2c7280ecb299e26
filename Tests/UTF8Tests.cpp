#include "Platform/UTF8.h"

#include <gtest/gtest.h>

namespace quorvane {
namespace {

TEST(UTF8, EachMaximalSubpartBecomesOneReplacement) {
  struct Row {
    const char* what;
    std::string text, replaced;
  };
  const std::string mark = "\xEF\xBF\xBD";
  const Row rows[] = {
      {"ASCII", "Mac14,2", "Mac14,2"},
      {"two, three and four bytes", "\xC3\xA9\xE2\x80\x94\xF0\x9F\x8C\x80",
       "\xC3\xA9\xE2\x80\x94\xF0\x9F\x8C\x80"},
      {"last of each length", "\xDF\xBF\xEF\xBF\xBF\xF4\x8F\xBF\xBF",
       "\xDF\xBF\xEF\xBF\xBF\xF4\x8F\xBF\xBF"},
      {"lone trail bytes", "a\x80\xBF", "a" + mark + mark},
      {"overlong two bytes", "\xC0\xAF", mark + mark},
      {"overlong three bytes", "\xE0\x9F\xBF", mark + mark + mark},
      {"surrogate", "\xED\xA0\x80", mark + mark + mark},
      {"above the last code point", "\xF4\x90\x80\x80", mark + mark + mark + mark},
      {"bytes that lead nothing", "\xF5\xFF", mark + mark},
      {"cut short at the end", "x\xF0\x9F\x8C", "x" + mark},
      {"cut short by another character",
       "\xE2\x80"
       "A",
       mark + "A"},
      {"cut short by another lead", "\xF1\x80\xE1\x80\x80", mark + "\xE1\x80\x80"},
      {"empty", "", ""},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(replacingInvalidUTF8(row.text), row.replaced) << row.what;
    EXPECT_EQ(isValidUTF8(row.text), row.text == row.replaced) << row.what;
  }
}

}  // namespace
}  // namespace quorvane
