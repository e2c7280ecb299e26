#include "Platform/Linux/CodeSigning/PeerIdentity.h"

#include <variant>

#include "Platform/Linux/CodeSigning/CodeRequirement.h"
#include "Platform/Linux/CodeSigning/CodeSignature.h"

namespace quorvane::xpc {

bool satisfiesRequirement(int executable, std::string_view requirement) {
  const CodeSignatureResult signature = verifyCodeSignature(executable);
  const auto* identity = std::get_if<CodeIdentity>(&signature);
  return identity != nullptr && requirementHolds(requirement, *identity);
}

}  // namespace quorvane::xpc
