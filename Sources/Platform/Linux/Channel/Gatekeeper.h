// Finds out whether a peer is who it must be, in a process of its own for each peer. That process
// opens, reads and parses what the peer controls, so this one does not: a file system that never
// answers, or a fault in the parsing, costs the guard nothing. Runs on the connection's thread,
// which waits.
#pragma once

#include <string>

#include "Platform/Linux/Channel/Peer.h"
#include "Platform/Linux/Socket.h"

namespace quorvane::xpc {

/// Whether the peer's executable bears a valid signature that satisfies the requirement, as
/// `quorvane-codesign admit` says before the deadline. The gatekeeper is killed then. The call
/// returns once the gatekeeper has ended: one that hangs in the kernel cannot be killed, and delays
/// this peer only. The seam between the channel and code signatures: a test links its own answer.
bool admits(const Peer& peer, const std::string& requirement, Deadline deadline);

}  // namespace quorvane::xpc
