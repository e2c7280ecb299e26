// A message with something in it that takes a minute to close.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>

#include "Platform/File.h"

namespace quorvane::test {

/// Sends both ends of a TCP connection whose bytes nobody reads: whoever closes the sending one
/// last waits for them (SO_LINGER, socket(7)). False when the kernel refuses to take descriptors
/// along.
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
  const char block[65536] = {};
  while (send(sending.get(), block, sizeof block, MSG_DONTWAIT) > 0) continue;
  const linger aMinute{1, 60};
  setsockopt(sending.get(), SOL_SOCKET, SO_LINGER, &aMinute, sizeof aMinute);

  const int ends[] = {sending.get(), receiving.get()};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof ends)] = {};
  iovec data{const_cast<char*>(block), 1};
  const msghdr message{nullptr, 0, &data, 1, control, sizeof control, 0};
  *CMSG_FIRSTHDR(&message) = {CMSG_LEN(sizeof ends), SOL_SOCKET, SCM_RIGHTS};
  std::memcpy(CMSG_DATA(CMSG_FIRSTHDR(&message)), ends, sizeof ends);
  return sendmsg(channel, &message, MSG_NOSIGNAL) == 1;
}

}  // namespace quorvane::test
