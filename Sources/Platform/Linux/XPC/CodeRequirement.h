// The code-signing requirement language as far as it is used here, and the identity that it is
// evaluated against. Pure values; callable from any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quorvane::xpc {

/// Who signed an executable, once its signature has been verified up to an installed anchor: only
/// such signatures become a CodeIdentity.
struct CodeIdentity {
  std::string identifier;
  /// The organisational unit of the leaf certificate's subject; nothing when it has none or
  /// several.
  std::optional<std::string> leafOrganizationalUnit;
};

}  // namespace quorvane::xpc
