#include "Platform/Linux/Channel/Socket.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <cstring>

#include "Platform/SystemPath.h"

namespace quorvane::xpc {

std::string machServiceSocketPath(std::string_view name) {
  return systemPath("/run/quorvane/").append(name);
}

std::optional<sockaddr_un> socketAddress(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  // The terminating NUL has to fit as well.
  if (path.size() >= sizeof address.sun_path) return std::nullopt;
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

bool limitBlocking(int socket, int direction, std::optional<Deadline> deadline) {
  // Zero means no limit to the kernel, so a time that has run out must not be handed to it.
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

}  // namespace quorvane::xpc
