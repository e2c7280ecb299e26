#include "Platform/Linux/XPC/PeerIdentity.h"

#include <optional>
#include <variant>

#include "Platform/Linux/XPC/CodeRequirement.h"
#include "Platform/Linux/XPC/CodeSignature.h"

namespace quorvane::xpc {

bool satisfiesRequirement(int executable, std::string_view requirement) {
  const std::optional<CodeRequirement> parsed = CodeRequirement::parse(requirement);
  if (!parsed) return false;
  const CodeSignatureResult signature = verifyCodeSignature(executable);
  const auto* identity = std::get_if<CodeIdentity>(&signature);
  return identity != nullptr && parsed->isSatisfiedBy(*identity);
}

}  // namespace quorvane::xpc
