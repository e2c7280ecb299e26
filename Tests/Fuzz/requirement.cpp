// Fuzzes the evaluation of requirements against one that goes another way: it makes a form of the
// text, in which + is a term that holds and - one that does not, and rewrites that until it is one
// of the two, or stuck because it is not of the language.
#include "Platform/Linux/CodeSigning/Requirement.h"

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <regex>

namespace {

const std::string gap = "[ \\t\\r\\n]*";
const std::string name = "identifier" + gap;
const std::string unit = "certificate\\b" + gap + "leaf" + gap + "\\[" + gap + "subject\\.OU" +
                         gap + "\\]" + gap + "=" + gap;
/// A group for each of the signs below, in their order but for the last.
const std::regex part(
    "(anchor\\b" + gap + "apple\\b" + gap + "generic\\b|" + unit + "\"X4TQ8RW2ZN\"|" + name +
    "\"com\\.quorvane\\.app\")|((?:" + unit + "|" + name +
    ")\"[^\"\\\\]*\")|(and\\b)|(or\\b)|(\\()|(\\))|([ \\t\\r\\n]+)|[A-Za-z0-9.]+|.");
constexpr char signs[] = "+-&|() ?";

const std::pair<std::regex, const char*> rules[] = {
    {std::regex(R"(\+&\+)"), "+"},
    {std::regex(R"(-&[+-]|\+&-)"), "-"},
    {std::regex(R"(\(([+-]\|)*\+(\|[+-])*\))"), "+"},
    {std::regex(R"(\((-\|)*-\))"), "-"}};

bool shouldHold(const std::string& text) {
  std::string form = "(";
  int depth = 0;
  int deepest = 0;
  for (std::sregex_iterator match(text.begin(), text.end(), part), end; match != end; ++match) {
    std::size_t group = 1;
    while (group < match->size() && !(*match)[group].matched) ++group;
    const char sign = signs[group - 1];
    if (sign != ' ') form += sign;
    if (sign == '(') ++depth;
    if (sign == ')') --depth;
    deepest = std::max(deepest, depth);
  }
  form += ')';
  if (text.size() > 2048 || deepest > 16) return false;
  for (std::string before; before != form;) {
    before = form;
    for (const auto& [from, to] : rules) form = std::regex_replace(form, from, to);
  }
  return form == "+";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(data, data + size);
  assert(quorvane::codesigning::requirementHolds(text, {"com.quorvane.app", "X4TQ8RW2ZN"}) ==
         shouldHold(text));
  return 0;
}
