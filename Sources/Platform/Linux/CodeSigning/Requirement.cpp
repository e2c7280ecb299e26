#include "Platform/Linux/CodeSigning/Requirement.h"

#include <algorithm>

namespace quorvane::codesigning {
namespace {

/// A recursive-descent parser with one token of lookahead. It evaluates as it parses, and also
/// parses parts that cannot change the result: a malformed text has no result. A token is a word, a
/// string with its quotes or a single other byte; the empty token is the end. A byte outside the
/// language (a lone quote, a stray byte) is never accepted, which ends the parse.
class Evaluation {
 public:
  Evaluation(std::string_view text, const Identity& signer) : rest(text), identity(signer) {
    advance();
  }

  bool holds() {
    const bool result = disjunction(0);
    return result && token.empty() && !isMalformed;
  }

 private:
  bool disjunction(int depth) {
    bool any = conjunction(depth);
    while (accept("or")) any = conjunction(depth) || any;
    return any;
  }

  bool conjunction(int depth) {
    bool all = term(depth);
    while (accept("and")) all = term(depth) && all;
    return all;
  }

  bool term(int depth) {
    if (depth < maxRequirementNesting && accept("(")) {
      const bool inner = disjunction(depth + 1);
      expect(")");
      return inner;
    }
    if (accept("anchor")) {
      expect("apple");
      expect("generic");
      return true;  // otherwise the signer would not be an Identity
    }
    if (accept("certificate")) {
      for (const char* next : {"leaf", "[", "subject.OU", "]", "="}) expect(next);
      return takeString(identity.leafOrganizationalUnit);
    }
    expect("identifier");
    return takeString(identity.identifier);
  }

  /// Takes the next token, which must be a string. Returns whether it equals `value`.
  bool takeString(const std::optional<std::string>& value) {
    const bool isString = token.size() >= 2 && token.front() == '"';
    isMalformed = isMalformed || !isString;
    const bool isEqual = isString && value == token.substr(1, token.size() - 2);
    advance();
    return isEqual;
  }

  void expect(std::string_view expected) { isMalformed = !accept(expected) || isMalformed; }

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
  bool isMalformed = false;
  const Identity& identity;
};

}  // namespace

bool requirementHolds(std::string_view text, const Identity& identity) {
  return text.size() <= maxRequirementLength && Evaluation(text, identity).holds();
}

}  // namespace quorvane::codesigning
