// Closes a peer's socket without waiting for the messages in it. An unread message can carry a
// descriptor whose last close takes as long as its owner chooses. Used from the listener's thread.
#pragma once

#include "Platform/File.h"

namespace quorvane::xpc {

/// Closes the socket in a thread's exit: if the socket lingers, it does so in the background
/// (SO_LINGER, socket(7)). Returns false, with the socket still open, if there is no thread or no
/// memory, or if too many such threads hang.
[[nodiscard]] bool discard(Descriptor& socket);

}  // namespace quorvane::xpc
