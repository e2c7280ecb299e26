// Four-character codes, the numbers of the SMC's keys and types. Callable from any thread.
#pragma once

#include <cstdint>
#include <string_view>

namespace quorvane {

using FourCC = std::uint32_t;

/// The code of a name: its UTF-8 bytes, most significant byte first. A longer name keeps its last
/// four bytes only; a shorter one is not padded.
constexpr FourCC fourCC(std::string_view name) {
  FourCC code = 0;
  for (const char character : name) code = code << 8 | static_cast<std::uint8_t>(character);
  return code;
}

}  // namespace quorvane
