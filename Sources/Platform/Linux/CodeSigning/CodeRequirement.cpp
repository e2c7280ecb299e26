#include "Platform/Linux/CodeSigning/CodeRequirement.h"

#include <algorithm>

namespace quorvane::xpc {
namespace {

/// Recursive descent, one token ahead, that evaluates as it parses; what the result no longer
/// depends on is parsed all the same. Text that is not of the language yields nothing. A token
/// is a word, a string with its quotes or a single other byte; the empty token is the end. What is
/// no token of the language (a lone quote, a stray byte) is accepted nowhere and so ends the parse.
class Evaluation {
 public:
  Evaluation(std::string_view text, const CodeIdentity& signer) : rest(text), identity(signer) {
    advance();
  }

  bool holds() {
    const std::optional<bool> result = disjunction(0);
    return token.empty() && result.value_or(false);
  }

 private:
  std::optional<bool> disjunction(int depth) {
    bool any = false;
    do {
      const std::optional<bool> operand = conjunction(depth);
      if (!operand) return std::nullopt;
      any = any || *operand;
    } while (accept("or"));
    return any;
  }

  std::optional<bool> conjunction(int depth) {
    bool all = true;
    do {
      const std::optional<bool> operand = term(depth);
      if (!operand) return std::nullopt;
      all = all && *operand;
    } while (accept("and"));
    return all;
  }

  std::optional<bool> term(int depth) {
    if (accept("(")) {
      if (depth == maxRequirementNesting) return std::nullopt;
      const std::optional<bool> inner = disjunction(depth + 1);
      return accept(")") ? inner : std::nullopt;
    }
    if (accept("anchor")) {
      if (!accept("apple") || !accept("generic")) return std::nullopt;
      return true;  // or the signer would not have become a CodeIdentity
    }
    if (accept("certificate")) {
      for (const char* expected : {"leaf", "[", "subject.OU", "]", "="}) {
        if (!accept(expected)) return std::nullopt;
      }
      return isNext(identity.leafOrganizationalUnit);
    }
    if (accept("identifier")) return isNext(identity.identifier);
    return std::nullopt;
  }

  /// Takes a string and compares it.
  std::optional<bool> isNext(const std::optional<std::string>& value) {
    if (token.size() < 2 || token.front() != '"') return std::nullopt;
    const bool isEqual = value == token.substr(1, token.size() - 2);
    advance();
    return isEqual;
  }

  bool accept(std::string_view expected) {
    if (token != expected) return false;
    advance();
    return true;
  }

  void advance() {
    rest.remove_prefix(std::min(rest.find_first_not_of(" \t\r\n"), rest.size()));
    token = rest.substr(0, tokenLength());
    rest.remove_prefix(token.size());
  }

  std::size_t tokenLength() const {
    constexpr std::string_view wordBytes =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789.";
    const std::size_t wordLength = std::min(rest.find_first_not_of(wordBytes), rest.size());
    if (wordLength > 0) return wordLength;
    if (!rest.starts_with('"')) return 1;
    const std::size_t stop = rest.find_first_of("\"\\", 1);
    return stop != std::string_view::npos && rest[stop] == '"' ? stop + 1 : 1;
  }

  std::string_view rest;
  std::string_view token;
  const CodeIdentity& identity;
};

}  // namespace

bool requirementHolds(std::string_view text, const CodeIdentity& identity) {
  return text.size() <= maxRequirementLength && Evaluation(text, identity).holds();
}

}  // namespace quorvane::xpc
