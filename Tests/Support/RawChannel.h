// A client of the channel that may misbehave: it sends what it is told, as bytes, and reads what
// comes. A wait of more than ten seconds fails the test. Used from one thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Platform/Linux/XPC/Socket.h"
#include "Platform/Linux/XPC/Wire.h"

namespace quorvane::test {

class RawChannel {
 public:
  /// Makes a socket that is not connected yet.
  RawChannel();
  /// Takes over a connected one.
  explicit RawChannel(xpc::Descriptor connected);

  /// To the helper's rendezvous.
  [[nodiscard]] bool connect();
  /// Connects, echoes the challenge and is answered a ping.
  [[nodiscard]] bool enter();

  /// False once cut off. A descriptor, when given, is passed along.
  bool send(std::string_view message, int passedDescriptor = -1);
  /// The next message; nothing once cut off.
  std::optional<std::string> receive();
  /// Reads, and throws away, what comes before the end.
  void waitForCutOff();

  /// The response that admits, once the challenge has come; empty when it does not.
  std::string responseToChallenge();
  /// The answer of a ping, when just that comes next.
  std::optional<std::string> ping();

  [[nodiscard]] int descriptor() const { return socket.get(); }

 private:
  xpc::Descriptor socket;
};

}  // namespace quorvane::test
