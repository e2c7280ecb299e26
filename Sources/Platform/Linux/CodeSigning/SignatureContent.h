// The three lines that a code signature signs: the executable's identifier, size and digest. Pure
// values; callable from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quorvane::codesigning {

struct SignatureContent {
  static constexpr std::size_t maxIdentifierLength = 255;
  static constexpr std::size_t digestLength = 64;

  /// Returns whether the text is 1 to 255 ASCII letters, digits, dots and hyphens.
  static bool isIdentifier(std::string_view text);

  std::string identifier;
  /// The executable's size, in bytes.
  std::uint64_t size = 0;
  /// The SHA-256 of the executable as lower-case hexadecimal digits.
  std::string sha256;

  /// Returns the text that is signed.
  [[nodiscard]] std::string text() const;
  /// Accepts the canonical form only.
  static std::optional<SignatureContent> parse(std::string_view text);
};

}  // namespace quorvane::codesigning
