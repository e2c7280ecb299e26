// The code-signing requirement language as far as it is used here, and the identity that it is
// evaluated against. Pure values; callable from any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace quorvane::codesigning {

/// Who signed an executable, once its signature has been verified up to an installed anchor: only
/// such signatures become a Identity.
struct Identity {
  std::string identifier;
  /// The organisational unit of the leaf certificate's subject; nothing when it has none or
  /// several.
  std::optional<std::string> leafOrganizationalUnit;
  /// When the first certificate of the chain expires, for people; no requirement asks for it.
  std::string validUntil = {};
};

/// Ten times what the requirements in use need.
inline constexpr std::size_t maxRequirementLength = 2048;
/// Parentheses within parentheses; each level is a level of recursion.
inline constexpr int maxRequirementNesting = 16;

/// Whether the identity satisfies the requirement: nobody does when any part of the text is not of
/// the language. Strings are compared exactly, byte for byte. The grammar, with `and` binding
/// tighter than `or` and white space free between tokens:
///
///     requirement = conjunction { "or" conjunction }
///     conjunction = term { "and" term }
///     term        = "anchor" "apple" "generic"
///                 | "certificate" "leaf" "[" "subject.OU" "]" "=" string
///                 | "identifier" string
///                 | "(" requirement ")"
///     string      = '"' { any byte but '"' and '\' } '"'
bool requirementHolds(std::string_view text, const Identity& identity);

}  // namespace quorvane::codesigning
