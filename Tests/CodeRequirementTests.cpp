#include "Platform/Linux/XPC/CodeRequirement.h"

#include <gtest/gtest.h>

#include <regex>

namespace quorvane::xpc {
namespace {

/// Whether a text holds in which + stands for a term that does, and - for one that does not.
bool holds(const std::string& form) {
  const std::string text = std::regex_replace(form, std::regex("\\+"), "anchor apple generic");
  const std::string whole = std::regex_replace(text, std::regex("-"), "identifier\"other\"");
  return requirementHolds(whole, {"app", "TEAM"});
}

TEST(CodeRequirement, HoldsOnlyWhenUnderstoodWhole) {
  for (const char* form : {"+ or + and -", "- and + or +", "(- or +)and +", " \t\r\n+\nor\t- ",
                           "identifier\"app\" and certificate leaf [ subject.OU ]=\"TEAM\""}) {
    EXPECT_TRUE(holds(form)) << form;
  }
  for (const char* form : {"- or - and +", "(+ or +) and -", "- and (+ or +)", "identifier \"ap\"",
                           "certificate leaf[subject.OU] = \"team\""}) {
    EXPECT_FALSE(holds(form)) << form;
  }
  for (const char* form : {"", "()", "anchor apple", "anchorapplegeneric", "+ or", "+ or ()", "+ +",
                           "(+", "+)", "not +", "+;", "identifier \"app", "identifier app",
                           "+ or identifier \"a\\b\"", "certificate leaf[subject.CN] = \"TEAM\""}) {
    EXPECT_FALSE(holds(form)) << form << " is not of the language";
  }
  EXPECT_TRUE(holds(std::string(16, '(') + "+" + std::string(16, ')')));
  EXPECT_FALSE(holds(std::string(17, '(') + "+" + std::string(17, ')')));
  EXPECT_FALSE(holds("+" + std::string(maxRequirementLength, ' ')));
}

}  // namespace
}  // namespace quorvane::xpc
