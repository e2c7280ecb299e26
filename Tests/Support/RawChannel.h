// A client of the channel that can misbehave: it sends any bytes and reads any message. Reads block
// without a time limit of their own; the test's time limit ends them. Used from one thread.
#pragma once

#include <sys/syscall.h>
#include <unistd.h>

#include "Platform/File.h"
#include "Platform/Linux/Channel/Messages.h"
#include "Platform/Linux/Channel/Rendezvous.h"
#include "Platform/Linux/Socket.h"

namespace quorvane::test {

inline std::string writeRequest(const std::string& key, std::int64_t value) {
  return xpc::encodeRequest(1, xpc::WriteFanKeyRequest{key, value, false});
}
inline const std::string longestKey(xpc::maxRequestSize - writeRequest("", 0).size(), 'k');

struct RawChannel {
  /// Connects to the helper's rendezvous as `user`. Only root can connect as another user.
  [[nodiscard]] bool connect(uid_t user = geteuid()) const {
    const auto path = xpc::machServiceSocketPath(FanControlConstants::helperMachService);
    const auto address = socketAddress(path).value();
    // Changes this thread only; libc's own call changes all threads.
    const uid_t before = geteuid();
    syscall(SYS_setresuid, -1, user, -1);
    const bool isConnected = ::connect(socket.get(), address.get(), address.size) == 0;
    syscall(SYS_setresuid, -1, before, -1);
    return isConnected;
  }
  /// Connects, echoes the challenge and pings. Returns whether the ping's reply came.
  [[nodiscard]] bool enter(uid_t user = geteuid()) const {
    return connect(user) && send(responseToChallenge()) && ping();
  }

  /// Returns false if the connection is cut off.
  bool send(std::string_view message) const {
    return ::send(socket.get(), message.data(), message.size(), MSG_NOSIGNAL) >= 0;
  }
  /// Returns the next message, or nothing if the connection is cut off.
  [[nodiscard]] std::optional<std::string> receive() const {
    std::string message(xpc::maxReplySize, '\0');
    const ssize_t size = recv(socket.get(), message.data(), message.size(), 0);
    if (size <= 0) return std::nullopt;
    return message.substr(0, static_cast<std::size_t>(size));
  }
  /// Reads and discards messages until the connection is cut off.
  void waitForCutOff() const {
    while (receive()) continue;
  }

  /// Waits for the challenge. Returns the response to it, or an empty string if none came.
  [[nodiscard]] std::string responseToChallenge() const {
    const auto nonce = decodeNonce(xpc::MessageKind::challenge, receive().value_or(""));
    return nonce ? encodeNonce(xpc::MessageKind::response, *nonce) : "";
  }
  /// Pings. Returns whether the next message is the ping's reply.
  [[nodiscard]] bool ping() const {
    send(xpc::encodeRequest(0, xpc::PingRequest()));
    return xpc::decodeReply<std::string>(receive().value_or(""), 0).has_value();
  }

  Descriptor socket{::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)};
};

}  // namespace quorvane::test
