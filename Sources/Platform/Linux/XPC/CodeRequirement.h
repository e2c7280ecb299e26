// The code-signing requirement language as far as it is used here, and the identity that it is
// evaluated against. Pure values; callable from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quorvane::xpc {

/// Who signed an executable, once its signature has been verified up to an installed anchor: only
/// such signatures become a CodeIdentity.
struct CodeIdentity {
  std::string identifier;
  /// The organisational unit of the leaf certificate's subject; nothing when it has none or
  /// several.
  std::optional<std::string> leafOrganizationalUnit;
};

/// A requirement that has been understood whole. The grammar, with `and` binding tighter than `or`
/// and white space free between tokens:
///
///     requirement = conjunction { "or" conjunction }
///     conjunction = term { "and" term }
///     term        = "anchor" "apple" "generic"
///                 | "certificate" "leaf" "[" "subject.OU" "]" "=" string
///                 | "identifier" string
///                 | "(" requirement ")"
///     string      = '"' { any byte but '"' and '\' } '"'
class CodeRequirement {
 public:
  /// Ten times what the requirements in use need.
  static constexpr std::size_t maxTextLength = 2048;
  /// Parentheses within parentheses; each level is a level of recursion.
  static constexpr int maxNesting = 16;

  /// Nothing when any part of the text is not of the language: nobody satisfies such a text.
  static std::optional<CodeRequirement> parse(std::string_view text);

  /// Compares strings exactly, byte for byte.
  bool isSatisfiedBy(const CodeIdentity& identity) const { return expression.isTrueOf(identity); }

 private:
  class Parser;

  enum class Kind : std::uint8_t { anchored, leafOrganizationalUnit, identifier, all, any };

  struct Expression {
    Kind kind;
    std::string value{};
    std::vector<Expression> operands{};

    bool isTrueOf(const CodeIdentity& identity) const;
  };

  explicit CodeRequirement(Expression parsed) : expression(std::move(parsed)) {}

  Expression expression;
};

}  // namespace quorvane::xpc
