// UTF-8 as the Unicode Standard defines it (chapter 3, table 3-7): no surrogates, no overlong
// forms, nothing above U+10FFFF. Pure functions; callable from any thread.
#pragma once

#include <string>
#include <string_view>

namespace quorvane {

bool isValidUTF8(std::string_view text);

/// Replaces each maximal subpart of an ill-formed sequence by one U+FFFD.
std::string replacingInvalidUTF8(std::string_view text);

/// Converts UTF-16 and replaces each unpaired surrogate by U+FFFD.
std::string toUTF8(std::u16string_view text);

}  // namespace quorvane
