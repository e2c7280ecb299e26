// A client of the channel that may misbehave: it sends what it is told, as bytes, and reads what
// comes. A wait for what never comes is ended by the test's time limit. Used from one thread.
#pragma once

#include <sys/socket.h>

#include <optional>
#include <string>

#include "Platform/Linux/XPC/Socket.h"
#include "Platform/Linux/XPC/Wire.h"

namespace quorvane::test {

struct RawChannel {
  /// To the helper's rendezvous.
  [[nodiscard]] bool connect() const;
  /// Connects, echoes the challenge and is answered a ping.
  [[nodiscard]] bool enter() const { return connect() && send(responseToChallenge()) && ping(); }

  /// False once cut off.
  bool send(std::string_view message) const;
  /// The next message; nothing once cut off.
  [[nodiscard]] std::optional<std::string> receive() const;
  /// Reads, and throws away, what comes before the end.
  void waitForCutOff() const;

  /// The response that admits, once the challenge has come; empty when it does not.
  [[nodiscard]] std::string responseToChallenge() const;
  /// Whether the answer of a ping, and just that, comes next.
  [[nodiscard]] bool ping() const;

  xpc::Descriptor socket{::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)};
};

}  // namespace quorvane::test
