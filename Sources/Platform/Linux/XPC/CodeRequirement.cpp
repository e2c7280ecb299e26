#include "Platform/Linux/XPC/CodeRequirement.h"

#include <algorithm>

namespace quorvane::xpc {

/// Recursive descent, one token ahead. A token is a word, a string with its quotes or a single
/// other byte; the empty token is the end. What is no token of the language (a lone quote, a stray
/// byte) is accepted nowhere and so ends the parse.
class CodeRequirement::Parser {
 public:
  explicit Parser(std::string_view text) : rest(text) { advance(); }

  std::optional<Expression> whole() {
    std::optional<Expression> result = disjunction(0);
    return token.empty() ? std::move(result) : std::nullopt;
  }

 private:
  std::optional<Expression> disjunction(int depth) {
    Expression any{Kind::any};
    do {
      std::optional<Expression> operand = conjunction(depth);
      if (!operand) return std::nullopt;
      any.operands.push_back(std::move(*operand));
    } while (accept("or"));
    return any;
  }

  std::optional<Expression> conjunction(int depth) {
    Expression all{Kind::all};
    do {
      std::optional<Expression> operand = term(depth);
      if (!operand) return std::nullopt;
      all.operands.push_back(std::move(*operand));
    } while (accept("and"));
    return all;
  }

  std::optional<Expression> term(int depth) {
    if (accept("(")) {
      if (depth == maxNesting) return std::nullopt;
      std::optional<Expression> inner = disjunction(depth + 1);
      return accept(")") ? std::move(inner) : std::nullopt;
    }
    if (accept("anchor")) {
      if (!accept("apple") || !accept("generic")) return std::nullopt;
      return Expression{Kind::anchored};
    }
    if (accept("certificate")) {
      for (const char* expected : {"leaf", "[", "subject.OU", "]", "="}) {
        if (!accept(expected)) return std::nullopt;
      }
      return comparison(Kind::leafOrganizationalUnit);
    }
    if (accept("identifier")) return comparison(Kind::identifier);
    return std::nullopt;
  }

  std::optional<Expression> comparison(Kind kind) {
    if (token.size() < 2 || token.front() != '"') return std::nullopt;
    Expression result{kind, std::string(token.substr(1, token.size() - 2))};
    advance();
    return result;
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
};

std::optional<CodeRequirement> CodeRequirement::parse(std::string_view text) {
  if (text.size() > maxTextLength) return std::nullopt;
  std::optional<Expression> parsed = Parser(text).whole();
  if (!parsed) return std::nullopt;
  return CodeRequirement(std::move(*parsed));
}

bool CodeRequirement::Expression::isTrueOf(const CodeIdentity& identity) const {
  const auto holds = [&identity](const Expression& operand) { return operand.isTrueOf(identity); };
  switch (kind) {
    case Kind::anchored:
      return true;  // or it would not have become a CodeIdentity
    case Kind::leafOrganizationalUnit:
      return identity.leafOrganizationalUnit == value;
    case Kind::identifier:
      return identity.identifier == value;
    case Kind::all:
      return std::all_of(operands.begin(), operands.end(), holds);
    case Kind::any:
      return std::any_of(operands.begin(), operands.end(), holds);
  }
  return false;
}

}  // namespace quorvane::xpc
