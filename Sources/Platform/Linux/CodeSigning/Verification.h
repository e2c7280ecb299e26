// Verifies the code signature that lies beside an executable as `<executable>.codesign`; its format
// and what it proves are told in Documentation/code-identity.md. Stateless; callable from any
// thread, which it may block on files for as long as whoever has put them there likes.
#pragma once

#include <cstddef>
#include <string>
#include <variant>
#include <vector>

#include "Platform/Linux/CodeSigning/Requirement.h"

namespace quorvane::codesigning {

/// A signature with a chain of certificates takes one to ten KiB; whoever runs an executable may
/// have written it.
inline constexpr std::size_t maxSignatureSize = std::size_t{64} * 1024;

/// One line of text for people, to follow the executable's name.
struct Refusal {
  std::string reason;
};

using Verdict = std::variant<Identity, Refusal>;

/// The package's folder of anchors, then the administrator's: system path /etc/quorvane/anchors.
std::vector<std::string> installedAnchors();

/// Verifies the executable behind a descriptor that is open for reading; it stays the caller's, and
/// its offset is neither used nor moved. The anchors are read anew from their folders each time; a
/// file hides those of its name in the folders before its own.
Verdict verifySignature(int executable,
                        const std::vector<std::string>& anchorFolders = installedAnchors());

}  // namespace quorvane::codesigning
