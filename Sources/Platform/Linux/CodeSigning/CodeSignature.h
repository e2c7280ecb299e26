// Verifies the code signature that lies beside an executable as `<executable>.codesign`; its format
// and what it proves are told in Documentation/code-identity.md. Stateless; callable from any
// thread, which it may block on files and on hashing the executable. 256 KiB of stack are enough.
#pragma once

#include <cstddef>
#include <string>
#include <variant>

#include "Platform/Linux/CodeSigning/CodeRequirement.h"

namespace quorvane::xpc {

/// A signature with a chain of certificates takes one to ten KiB; whoever runs an executable may
/// have written it.
inline constexpr std::size_t maxSignatureSize = std::size_t{64} * 1024;

/// Why an executable counts as unsigned: one line of text for diagnostics.
struct CodeSignatureRefusal {
  std::string reason;
};

using CodeSignatureResult = std::variant<CodeIdentity, CodeSignatureRefusal>;

/// Verifies the executable behind a descriptor that is open for reading; it stays the caller's, and
/// its offset is neither used nor moved. The anchors are read anew from system path
/// /etc/quorvane/anchors/ each time.
CodeSignatureResult verifyCodeSignature(int executable);

}  // namespace quorvane::xpc
