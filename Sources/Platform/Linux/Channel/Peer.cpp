#include "Platform/Linux/Channel/Peer.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace quorvane::xpc {
namespace {

std::optional<ucred> credentialsOfPeer(int socket) {
  ucred credentials{};
  socklen_t size = sizeof credentials;
  if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) return std::nullopt;
  return credentials;
}

}  // namespace

std::optional<uid_t> userOfPeer(int socket) {
  const auto credentials = credentialsOfPeer(socket);
  return credentials ? std::optional(credentials->uid) : std::nullopt;
}

Descriptor openPidfd(pid_t process) {
  // Not pidfd_open(), because glibc 2.36 declares it without C linkage.
  return Descriptor(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));  // close-on-exec
}

bool waitForEnd(const Descriptor& process, std::chrono::milliseconds timeout) {
  // A pidfd becomes readable when its process ends (pidfd_open(2)).
  pollfd ending{process.get(), POLLIN, 0};
  return poll(&ending, 1, static_cast<int>(timeout.count())) == 1;
}

Peer::Peer(int socket) {
  const auto credentials = credentialsOfPeer(socket);
  if (!credentials) return;
  pid = credentials->pid;
  process = openPidfd(pid);
}

bool Peer::hasSent(pid_t sender) const {
  return sender == pid && process && !waitForEnd(process, std::chrono::milliseconds(0));
}

}  // namespace quorvane::xpc
