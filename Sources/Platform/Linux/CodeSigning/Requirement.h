// The part of the code-signing requirement language that is used here, and the identity that it is
// evaluated against. Pure values; callable from any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace quorvane::codesigning {

/// The signer of an executable. Only a signature verified up to an installed anchor yields one.
struct Identity {
  std::string identifier;
  /// The only organisational unit of the leaf certificate's subject, if there is one of valid text.
  std::optional<std::string> leafOrganizationalUnit;
  /// When the first certificate of the chain expires, for people; no requirement tests it.
  std::string validUntil = {};
};

/// Ten times what the requirements in use need.
inline constexpr std::size_t maxRequirementLength = 2048;
/// Nested parentheses; each level is a level of recursion.
inline constexpr int maxRequirementNesting = 16;

/// Returns whether the identity satisfies the requirement; false if any part of the text is not of
/// the language. Strings are compared byte for byte. In this grammar `and` binds tighter than `or`,
/// and white space is free between tokens:
///
///     requirement = conjunction { "or" conjunction }
///     conjunction = term { "and" term }
///     term        = "anchor" "apple" "generic"
///                 | "certificate" "leaf" "[" "subject.OU" "]" "=" string
///                 | "identifier" string
///                 | "(" requirement ")"
///     string      = '"' { any byte except '"' and '\' } '"'
bool requirementHolds(std::string_view text, const Identity& identity);

}  // namespace quorvane::codesigning
