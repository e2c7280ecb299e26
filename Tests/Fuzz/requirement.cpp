// Fuzzes the evaluation of requirements: checks laws that hold for every text. A table in
// CodeSignatureTests has the meaning of single texts.
#include "Platform/Linux/CodeSigning/Requirement.h"

#include <cassert>
#include <cstdint>

using quorvane::codesigning::maxRequirementLength;
using quorvane::codesigning::requirementHolds;

static bool holds(const std::string& text) {
  return requirementHolds(text, {"com.quorvane.app", "X4TQ8RW2ZN"});
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(data, data + size);
  const std::string always = "anchor apple generic", never = "identifier \"other\"";
  if (size + 40 > maxRequirementLength) return 0;
  const bool is = holds(text);
  // A text with an invalid part is invalid.
  const bool isOfTheLanguage = holds(always + " or " + text);
  assert(isOfTheLanguage || !is);
  assert(isOfTheLanguage == holds(text + " or " + always));
  assert(is == holds(never + " or " + text));
  assert(is == holds(text + " or " + never));
  assert(is == holds(always + " and " + text));
  assert(is == holds(text + " and " + always));
  return 0;
}
