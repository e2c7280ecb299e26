// The process at the other end of a connection, held by a pidfd. Its number alone is not trusted:
// the kernel gives the number of an ended process to another one. Callable from any thread.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>

#include "Platform/File.h"

namespace quorvane::xpc {

/// Returns the user of the process that connected the socket (SO_PEERCRED, unix(7)).
std::optional<uid_t> userOfPeer(int socket);

/// Opens a pidfd of the process; empty if there is no such process.
Descriptor openPidfd(pid_t process);

/// Waits for the end of the process behind a pidfd. Returns false if the time is over first.
bool waitForEnd(const Descriptor& process, std::chrono::milliseconds timeout);

class Peer {
 public:
  /// The process that connected the socket.
  explicit Peer(int socket);

  /// Returns whether this process sent a message that was received under that process number: it is
  /// still alive, so no other process has had its number.
  [[nodiscard]] bool hasSent(pid_t number) const;

  [[nodiscard]] pid_t number() const { return pid; }

 private:
  pid_t pid = 0;
  Descriptor process;
};

}  // namespace quorvane::xpc
