// Messages with descriptors, such as one that takes a minute to close.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <string>
#include <vector>

#include "Platform/File.h"

namespace quorvane::test {

/// False when the kernel refuses to take descriptors along.
inline bool sendDescriptors(int channel, std::string message, const std::vector<int>& descriptors) {
  const std::size_t size = descriptors.size() * sizeof(int);
  std::vector<char> control(CMSG_SPACE(size));
  iovec data{message.data(), message.size()};
  const msghdr header{nullptr, 0, &data, 1, control.data(), control.size(), 0};
  *CMSG_FIRSTHDR(&header) = {CMSG_LEN(size), SOL_SOCKET, SCM_RIGHTS};
  std::memcpy(CMSG_DATA(CMSG_FIRSTHDR(&header)), descriptors.data(), size);
  return sendmsg(channel, &header, MSG_NOSIGNAL) >= 0;
}

/// Sends both ends of a TCP connection whose bytes nobody reads: whoever closes the sending one
/// last waits for them (SO_LINGER, socket(7)).
inline bool sendLingering(int channel) {
  const Descriptor listening(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const Descriptor sending(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  auto* const place = reinterpret_cast<sockaddr*>(&address);
  socklen_t size = sizeof address;
  if (bind(listening.get(), place, size) != 0 || listen(listening.get(), 1) != 0 ||
      getsockname(listening.get(), place, &size) != 0 || connect(sending.get(), place, size) != 0) {
    return false;
  }
  const Descriptor receiving(accept(listening.get(), nullptr, nullptr));
  const std::string block(65536, 'x');
  while (send(sending.get(), block.data(), block.size(), MSG_DONTWAIT) > 0) continue;
  const linger aMinute{1, 60};
  setsockopt(sending.get(), SOL_SOCKET, SO_LINGER, &aMinute, sizeof aMinute);
  return sendDescriptors(channel, "x", {sending.get(), receiving.get()});
}

}  // namespace quorvane::test
