// The three lines that a code signature signs: which executable it is, told by size and digest, and
// under which identifier. Pure values; callable from any thread.
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

  /// Letters, digits, dots and hyphens of ASCII; never empty.
  static bool isIdentifier(std::string_view text);

  std::string identifier;
  /// Of the executable, in bytes.
  std::uint64_t size = 0;
  /// The SHA-256 of the executable as lower-case hexadecimal digits.
  std::string sha256;

  /// What is signed.
  [[nodiscard]] std::string text() const;
  /// Nothing unless the text is exactly as it must be, to the byte: there is one text for one
  /// content.
  static std::optional<SignatureContent> parse(std::string_view text);
};

}  // namespace quorvane::codesigning
