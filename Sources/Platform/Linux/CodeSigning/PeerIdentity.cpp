#include "Platform/Linux/CodeSigning/PeerIdentity.h"

#include <variant>

#include "Platform/Linux/CodeSigning/Requirement.h"
#include "Platform/Linux/CodeSigning/Verification.h"

namespace quorvane::xpc {

bool satisfiesRequirement(int executable, std::string_view requirement) {
  const codesigning::Verdict verdict = codesigning::verifySignature(executable);
  const auto* identity = std::get_if<codesigning::Identity>(&verdict);
  return identity != nullptr && codesigning::requirementHolds(requirement, *identity);
}

}  // namespace quorvane::xpc
