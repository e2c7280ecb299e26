// What both ends of the channel need of sockets: the address at which a service is met, and waits
// that end at a deadline. Callable from any thread.
#pragma once

#include <sys/un.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/File.h"

namespace quorvane::xpc {

/// The socket at which a Mach service of this name is met, below the system root.
std::string machServiceSocketPath(std::string_view name);

/// Nothing when the path does not fit into a socket address.
std::optional<sockaddr_un> socketAddress(const std::string& path);

using Deadline = std::chrono::steady_clock::time_point;

/// Lets the next call in one direction (SO_RCVTIMEO or SO_SNDTIMEO) block until the deadline at
/// most, or for good when there is none. False when no time is left.
[[nodiscard]] bool limitBlocking(int socket, int direction, std::optional<Deadline> deadline);

}  // namespace quorvane::xpc
