#include "Platform/Linux/XPC/CodeRequirement.h"

#include <gtest/gtest.h>

#include "QRVFanShared/FanControlXPC.h"

namespace quorvane::xpc {
namespace {

const CodeIdentity app{"com.quorvane.app", "X4TQ8RW2ZN"};

TEST(CodeRequirement, AdmitsOnlyTheIdentityThatItNames) {
  const std::string text = FanControlConstants::appCodeRequirement();
  const auto requirement = CodeRequirement::parse(text);
  ASSERT_TRUE(requirement);
  const std::pair<CodeIdentity, bool> rows[] = {
      {app, true},
      {{"com.quorvane.app-vendra", "X4TQ8RW2ZN"}, true},
      {{"com.quorvane.app", "x4tq8rw2zn"}, false},
      {{"com.quorvane.app", "X4TQ8RW2ZN "}, false},
      {{"com.quorvane.app", std::nullopt}, false},
      {{"com.quorvane.application", "X4TQ8RW2ZN"}, false},
      {{"com.quorvane.ap", "X4TQ8RW2ZN"}, false},
      {{"com.quorvane.fanhelper", "X4TQ8RW2ZN"}, false},
  };
  for (const auto& [identity, satisfied] : rows) {
    EXPECT_EQ(requirement->isSatisfiedBy(identity), satisfied)
        << identity.identifier << ' ' << identity.leafOrganizationalUnit.value_or("-");
  }
  const auto helper = CodeRequirement::parse(FanControlConstants::helperCodeRequirement);
  ASSERT_TRUE(helper);
  EXPECT_FALSE(helper->isSatisfiedBy(app));
  EXPECT_TRUE(helper->isSatisfiedBy({"com.quorvane.fanhelper", "X4TQ8RW2ZN"}));
}

/// The text with each + replaced by a term that holds for the application, each - by one that does
/// not.
std::string expanded(std::string_view form) {
  std::string text;
  for (const char symbol : form) {
    if (symbol == '+') text += "anchor apple generic";
    if (symbol == '-') text += "identifier\"com.quorvane.other\"";
    if (symbol != '+' && symbol != '-') text += symbol;
  }
  return text;
}

TEST(CodeRequirement, BindsAndTighterThanOr) {
  for (const char* form : {"+", "+ or + and -", "- and + or +", "- or - or +", "(- or +)and +",
                           " \t\r\n+\nor\t- ", "certificate leaf [ subject.OU ]=\"X4TQ8RW2ZN\""}) {
    const auto requirement = CodeRequirement::parse(expanded(form));
    EXPECT_TRUE(requirement && requirement->isSatisfiedBy(app)) << form;
  }
  for (const char* form : {"-", "- and - or -", "(+ or +) and -", "- and (+ or +)", "+ and + and -",
                           "((+))and((- or(-)))", "certificate leaf[subject.OU] = \"\""}) {
    const auto requirement = CodeRequirement::parse(expanded(form));
    EXPECT_TRUE(requirement && !requirement->isSatisfiedBy(app)) << form;
  }
}

TEST(CodeRequirement, RefusesTextThatItDoesNotUnderstandWhole) {
  const auto nested = [](std::size_t depth) {
    return expanded(std::string(depth, '(') + "+" + std::string(depth, ')'));
  };
  EXPECT_TRUE(CodeRequirement::parse(nested(CodeRequirement::maxNesting)));
  EXPECT_FALSE(CodeRequirement::parse(nested(CodeRequirement::maxNesting + 1)));
  std::string padded = expanded("+");
  padded.resize(CodeRequirement::maxTextLength, ' ');
  EXPECT_TRUE(CodeRequirement::parse(padded));
  EXPECT_FALSE(CodeRequirement::parse(padded + " "));
  EXPECT_FALSE(CodeRequirement::parse(expanded("+") + '\0'));
  for (const char* form : {"", " ", "()", "anchor", "anchor apple", "anchorapplegeneric",
                           "Anchor apple generic", "+ or", "+ and or +", "+ +", "or +", "(+", "+)",
                           "not +", "! +", "+ /* */", "+;", "\"a\""}) {
    EXPECT_FALSE(CodeRequirement::parse(expanded(form))) << form;
  }
  const std::string identifier = "identifier";
  for (const char* form :
       {"", " a", " = \"a\"", " \"a", " \"", " \"a\\\"\"", " \"a\\.b\"", " \"a\" \"b\""}) {
    EXPECT_FALSE(CodeRequirement::parse(identifier + form)) << form;
  }
  const std::string certificate = "certificate ";
  for (const char* form : {"leaf[subject.OU]", "leaf[subject.OU] \"a\"", "leaf[subject.OU] = a",
                           "leaf[subject.OU] == \"a\"", "leaf[subject.CN] = \"a\"",
                           "leaf subject.OU = \"a\"", "root[subject.OU] = \"a\""}) {
    EXPECT_FALSE(CodeRequirement::parse(certificate + form)) << form;
  }
}

}  // namespace
}  // namespace quorvane::xpc
