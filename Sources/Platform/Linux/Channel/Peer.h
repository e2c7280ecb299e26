// The process at the other end of a connection, held so that its number alone is never trusted: the
// kernel gives the number of a process that has ended to another one. Callable from any thread.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>

#include "Platform/File.h"

namespace quorvane::xpc {

/// The user whose process connected the socket (SO_PEERCRED, unix(7)).
std::optional<uid_t> userOfPeer(int socket);

/// A pidfd of the process; none when there is no such process.
Descriptor openPidfd(pid_t process);

/// Waits for the end of the process behind a pidfd. False when the time is over before that.
bool waitForEnd(const Descriptor& process, std::chrono::milliseconds timeout);

class Peer {
 public:
  /// The process that connected the socket.
  explicit Peer(int socket);

  /// Whether this process sent a message that was received under the process number: it is alive,
  /// so nobody else has had its number.
  [[nodiscard]] bool hasSent(pid_t number) const;

  [[nodiscard]] pid_t number() const { return pid; }

 private:
  pid_t pid = 0;
  Descriptor process;
};

}  // namespace quorvane::xpc
