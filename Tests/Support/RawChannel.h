// A client of the channel that may misbehave: it sends what it is told, as bytes, and reads what
// comes. A wait for what never comes is ended by the test's time limit. Used from one thread.
#pragma once

#include <sys/socket.h>

#include <optional>
#include <string>

#include "Platform/Linux/Channel/Socket.h"
#include "Platform/Linux/Channel/Wire.h"

namespace quorvane::test {

struct RawChannel {
  /// To the helper's rendezvous.
  [[nodiscard]] bool connect() const {
    const auto path = xpc::machServiceSocketPath(FanControlConstants::helperMachService);
    const auto address = xpc::socketAddress(path).value();
    const auto* const place = reinterpret_cast<const sockaddr*>(&address);
    return ::connect(socket.get(), place, sizeof address) == 0;
  }
  /// Connects, echoes the challenge and is answered a ping.
  [[nodiscard]] bool enter() const { return connect() && send(responseToChallenge()) && ping(); }

  /// False once cut off.
  bool send(std::string_view message) const {
    return ::send(socket.get(), message.data(), message.size(), MSG_NOSIGNAL) >= 0;
  }
  /// The next message; nothing once cut off.
  [[nodiscard]] std::optional<std::string> receive() const {
    std::string message(xpc::maxReplySize, '\0');
    const ssize_t size = recv(socket.get(), message.data(), message.size(), 0);
    if (size <= 0) return std::nullopt;
    return message.substr(0, static_cast<std::size_t>(size));
  }
  /// Reads, and throws away, what comes before the end.
  void waitForCutOff() const {
    while (receive()) continue;
  }

  /// The response that admits, once the challenge has come; empty when it does not.
  [[nodiscard]] std::string responseToChallenge() const {
    const auto nonce = decodeNonce(xpc::MessageKind::challenge, receive().value_or(""));
    return nonce ? encodeNonce(xpc::MessageKind::challengeResponse, *nonce) : "";
  }
  /// Whether the answer of a ping, and just that, comes next.
  [[nodiscard]] bool ping() const {
    const XPCOperation& operation = fanControlOperations[3];
    send(xpc::encodeRequest(0, operation.selector, {}));
    return xpc::decodeReply(receive().value_or(""), operation.reply).has_value();
  }

  Descriptor socket{::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)};
};

}  // namespace quorvane::test
