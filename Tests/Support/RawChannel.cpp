#include "Support/RawChannel.h"

namespace quorvane::test {

bool RawChannel::connect() const {
  const auto path = xpc::machServiceSocketPath(FanControlConstants::helperMachService);
  const auto address = xpc::socketAddress(path).value();
  return ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

bool RawChannel::send(std::string_view message) const {
  return ::send(socket.get(), message.data(), message.size(), MSG_NOSIGNAL) >= 0;
}

std::optional<std::string> RawChannel::receive() const {
  std::string message(xpc::maxReplySize, '\0');
  const ssize_t size = recv(socket.get(), message.data(), message.size(), 0);
  if (size <= 0) return std::nullopt;
  return message.substr(0, static_cast<std::size_t>(size));
}

void RawChannel::waitForCutOff() const {
  while (receive()) {
  }
}

std::string RawChannel::responseToChallenge() const {
  const auto nonce = decodeNonce(xpc::MessageKind::challenge, receive().value_or(""));
  return nonce ? encodeNonce(xpc::MessageKind::challengeResponse, *nonce) : "";
}

bool RawChannel::ping() const {
  const XPCOperation& operation = fanControlOperations[3];
  send(xpc::encodeRequest(0, operation.selector, {}));
  return xpc::decodeReply(receive().value_or(""), operation.reply).has_value();
}

}  // namespace quorvane::test
