#include "Platform/UTF8.h"

#include <cstddef>
#include <cstdint>

namespace quorvane {
namespace {

struct Subpart {
  std::size_t length;
  bool wellFormed;
};

/// The trail bytes of a lead byte: their number, and the range of the first. The others: 80..BF.
struct Lead {
  std::size_t trailCount;
  std::uint8_t firstTrailMin;
  std::uint8_t firstTrailMax;
};

/// The rows of table 3-7. A byte that is not a lead byte has no trail bytes and an empty range.
Lead leadOf(std::uint8_t byte) {
  if (byte >= 0xC2 && byte <= 0xDF) return {1, 0x80, 0xBF};
  if (byte == 0xE0) return {2, 0xA0, 0xBF};
  if (byte == 0xED) return {2, 0x80, 0x9F};
  if (byte >= 0xE1 && byte <= 0xEF) return {2, 0x80, 0xBF};
  if (byte == 0xF0) return {3, 0x90, 0xBF};
  if (byte >= 0xF1 && byte <= 0xF3) return {3, 0x80, 0xBF};
  if (byte == 0xF4) return {3, 0x80, 0x8F};
  return {0, 1, 0};
}

/// Returns the first character, or the maximal subpart of an ill-formed one, of a non-empty text.
Subpart firstSubpart(std::string_view text) {
  const auto byteAt = [text](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
  if (byteAt(0) < 0x80) return {1, true};
  const Lead lead = leadOf(byteAt(0));
  std::size_t length = 1;
  while (length <= lead.trailCount && length < text.size()) {
    const std::uint8_t min = length == 1 ? lead.firstTrailMin : 0x80;
    const std::uint8_t max = length == 1 ? lead.firstTrailMax : 0xBF;
    if (byteAt(length) < min || byteAt(length) > max) break;
    ++length;
  }
  return {length, lead.trailCount > 0 && length == lead.trailCount + 1};
}

bool isSurrogate(char32_t unit, char32_t first) {
  return unit >= first && unit < first + 0x400;
}

/// Appends a Unicode scalar value, with its bits laid out as in table 3-6.
void append(std::string& text, char32_t character) {
  const auto trail = [character](int shift) {
    return static_cast<char>(0x80 | (character >> shift & 0x3F));
  };
  if (character < 0x80) {
    text += static_cast<char>(character);
  } else if (character < 0x800) {
    text += {static_cast<char>(0xC0 | character >> 6), trail(0)};
  } else if (character < 0x10000) {
    text += {static_cast<char>(0xE0 | character >> 12), trail(6), trail(0)};
  } else {
    text += {static_cast<char>(0xF0 | character >> 18), trail(12), trail(6), trail(0)};
  }
}

}  // namespace

bool isValidUTF8(std::string_view text) {
  while (!text.empty()) {
    const Subpart part = firstSubpart(text);
    if (!part.wellFormed) return false;
    text.remove_prefix(part.length);
  }
  return true;
}

std::string replacingInvalidUTF8(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const Subpart part = firstSubpart(text);
    result.append(part.wellFormed ? text.substr(0, part.length) : "\xEF\xBF\xBD");
    text.remove_prefix(part.length);
  }
  return result;
}

std::string toUTF8(std::u16string_view text) {
  constexpr char32_t firstHigh = 0xD800, firstLow = 0xDC00, replacement = 0xFFFD;
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    char32_t character = text[i];
    const bool isHigh = isSurrogate(character, firstHigh);
    if (isHigh && i + 1 < text.size() && isSurrogate(text[i + 1], firstLow)) {
      character = 0x10000 + ((character - firstHigh) << 10) + (text[++i] - firstLow);
    } else if (isHigh || isSurrogate(character, firstLow)) {
      character = replacement;
    }
    append(result, character);
  }
  return result;
}

}  // namespace quorvane
