#include "Platform/Linux/XPC/PeerIdentity.h"

#include <variant>

#include "Platform/Linux/XPC/CodeRequirement.h"
#include "Platform/Linux/XPC/CodeSignature.h"

namespace quorvane::xpc {

bool satisfiesRequirement(int executable, std::string_view requirement) {
  const CodeSignatureResult signature = verifyCodeSignature(executable);
  const auto* identity = std::get_if<CodeIdentity>(&signature);
  return identity != nullptr && requirementHolds(requirement, *identity);
}

}  // namespace quorvane::xpc
