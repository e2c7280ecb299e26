// Unix sockets: their addresses, datagrams that wait for nobody, and waits that end at a deadline.
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

/// The address of a path or, behind an '@', of an abstract name (unix(7)). Nothing when it is empty
/// or does not fit.
std::optional<SocketAddress> socketAddress(std::string_view name);

/// Sends one datagram to the socket of that name, without waiting for room. False when the socket
/// does not have it.
bool sendDatagram(std::string_view name, std::string_view datagram);

using Deadline = std::chrono::steady_clock::time_point;

/// Lets the next call in one direction (SO_RCVTIMEO or SO_SNDTIMEO) block until the deadline at
/// most, or for good when there is none. False when no time is left.
[[nodiscard]] bool limitBlocking(int socket, int direction, std::optional<Deadline> deadline);

}  // namespace quorvane
