// Closes a peer's socket without waiting for what the peer left in it. An unread message can carry
// a descriptor whose last close takes as long as its owner chose. Used from the listener's thread.
#pragma once

#include "Platform/File.h"

namespace quorvane::xpc {

/// Closes the socket as part of a thread's exit: a socket that lingers then does so in the
/// background (SO_LINGER, socket(7)). False when there is no thread or no memory to be had, or too
/// many such threads hang; the socket then stays open.
[[nodiscard]] bool discard(Descriptor& socket);

}  // namespace quorvane::xpc
