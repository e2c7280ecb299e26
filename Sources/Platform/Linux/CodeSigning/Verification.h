// Verifies the code signature beside an executable, `<executable>.codesign`.
// Documentation/code-identity.md describes its format and what it proves. Stateless; callable from
// any thread. Files can block that thread for as long as their owners choose.
#pragma once

#include <cstddef>
#include <string>
#include <variant>
#include <vector>

#include "Platform/Linux/CodeSigning/Requirement.h"

namespace quorvane::codesigning {

/// A signature with its chain takes one to ten KiB. The user of an executable may have written it.
inline constexpr std::size_t maxSignatureSize = std::size_t{64} * 1024;

/// One line of text for people, to follow the executable's name.
struct Refusal {
  std::string reason;
};

using Verdict = std::variant<Identity, Refusal>;

/// Returns the package's folder of anchors, then the administrator's, /etc/quorvane/anchors; both
/// below the system root.
std::vector<std::string> installedAnchors();

/// Verifies the executable behind a descriptor that is open for reading. The caller keeps the
/// descriptor; its offset is neither used nor moved. Reads the anchors from their folders on each
/// call. A file hides those of the same name in earlier folders.
Verdict verifySignature(int executable,
                        const std::vector<std::string>& anchorFolders = installedAnchors());

}  // namespace quorvane::codesigning
