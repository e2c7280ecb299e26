// Verifies a peer in a separate process, the gatekeeper. The gatekeeper opens, reads and parses
// what the peer controls, so that the guard does not: a file system that never answers, or a fault
// in the parsing, does not harm the guard. Blocks the connection's thread, on which it runs.
#pragma once

#include <string>

#include "Platform/Linux/Channel/Peer.h"
#include "Platform/Linux/Socket.h"

namespace quorvane::xpc {

/// Returns whether the peer's executable has a valid signature that satisfies the requirement. The
/// verdict is that of `quorvane-codesign admit`; at the deadline it is killed and the verdict is
/// false. Returns after the gatekeeper has ended: one that hangs in the kernel cannot be killed,
/// and delays this peer only. Link-time seam to code signatures: a test links its own verdict.
bool admits(const Peer& peer, const std::string& requirement, Deadline deadline);

}  // namespace quorvane::xpc
