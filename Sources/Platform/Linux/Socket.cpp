#include "Platform/Linux/Socket.h"

#include <sys/time.h>

#include <algorithm>
#include <cstddef>

#include "Platform/File.h"

namespace quorvane {

std::optional<SocketAddress> socketAddress(std::string_view name) {
  SocketAddress address;
  if (name.empty() || name.size() >= sizeof address.name.sun_path) return std::nullopt;
  address.name.sun_family = AF_UNIX;
  std::ranges::copy(name, address.name.sun_path);
  if (name.front() == '@') address.name.sun_path[0] = '\0';
  address.size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
  return address;
}

bool sendDatagram(std::string_view name, std::string_view datagram) {
  const auto address = socketAddress(name);
  const Descriptor sender(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  return address && sendto(sender.get(), datagram.data(), datagram.size(),
                           MSG_DONTWAIT | MSG_NOSIGNAL, address->get(), address->size) >= 0;
}

bool limitBlocking(int socket, int direction, std::optional<Deadline> deadline) {
  // To the kernel zero means no limit, so an expired deadline must not reach it.
  timeval limit{};
  if (deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(
        *deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    limit.tv_sec = left.count() / 1'000'000;
    limit.tv_usec = left.count() % 1'000'000;
  }
  return setsockopt(socket, SOL_SOCKET, direction, &limit, sizeof limit) == 0;
}

}  // namespace quorvane
