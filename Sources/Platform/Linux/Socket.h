// Unix sockets: their addresses, datagrams that never block, and calls that block until a deadline.
// Callable from any thread.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <optional>
#include <string_view>

namespace quorvane {

struct SocketAddress {
  sockaddr_un name{};
  socklen_t size = 0;

  [[nodiscard]] const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&name); }
};

/// Returns the address of a path or, after an '@', of an abstract name (unix(7)). Returns nothing
/// if the name is empty or too long.
std::optional<SocketAddress> socketAddress(std::string_view name);

/// Sends one datagram to the socket of that name without blocking. Returns false if it is not sent.
bool sendDatagram(std::string_view name, std::string_view datagram);

using Deadline = std::chrono::steady_clock::time_point;

/// Lets the next call in one direction (SO_RCVTIMEO or SO_SNDTIMEO) block until the deadline at
/// most, or without limit if there is none. Returns false on failure or if no time is left.
[[nodiscard]] bool limitBlocking(int socket, int direction, std::optional<Deadline> deadline);

}  // namespace quorvane
