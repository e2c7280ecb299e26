#include "Support/RawChannel.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "QRVFanShared/FanControlXPC.h"

namespace quorvane::test {

RawChannel::RawChannel()
    : RawChannel(xpc::Descriptor(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0))) {}

RawChannel::RawChannel(xpc::Descriptor connected) : socket(std::move(connected)) {
  const timeval limit{.tv_sec = 10, .tv_usec = 0};
  setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

bool RawChannel::connect() {
  const auto address =
      xpc::socketAddress(xpc::machServiceSocketPath(FanControlConstants::helperMachService));
  return ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&*address), sizeof *address) ==
         0;
}

bool RawChannel::enter() {
  return connect() && send(responseToChallenge()) && ping();
}

bool RawChannel::send(std::string_view message, int passedDescriptor) {
  iovec data{const_cast<char*>(message.data()), message.size()};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr header{};
  header.msg_iov = &data;
  header.msg_iovlen = 1;
  if (passedDescriptor >= 0) {
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    *CMSG_FIRSTHDR(&header) = {CMSG_LEN(sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
    std::memcpy(CMSG_DATA(CMSG_FIRSTHDR(&header)), &passedDescriptor, sizeof(int));
  }
  const bool isSent = sendmsg(socket.get(), &header, MSG_NOSIGNAL) >= 0;
  if (!isSent && errno == EAGAIN) ADD_FAILURE() << "the helper neither reads nor cuts off";
  return isSent;
}

std::optional<std::string> RawChannel::receive() {
  std::string message(xpc::maxReplySize, '\0');
  const ssize_t size = recv(socket.get(), message.data(), message.size(), 0);
  if (size < 0 && errno == EAGAIN) ADD_FAILURE() << "the helper neither answers nor cuts off";
  if (size <= 0) return std::nullopt;
  message.resize(static_cast<std::size_t>(size));
  return message;
}

void RawChannel::waitForCutOff() {
  while (receive()) {
  }
}

std::string RawChannel::responseToChallenge() {
  const auto nonce = decodeNonce(xpc::MessageKind::challenge, receive().value_or(""));
  return nonce ? encodeNonce(xpc::MessageKind::challengeResponse, *nonce) : "";
}

std::optional<std::string> RawChannel::ping() {
  constexpr std::uint32_t callNumber = 0x70696E67;
  const XPCOperation& operation = fanControlOperations[3];
  if (!send(xpc::encodeRequest(callNumber, operation.selector, {}))) return std::nullopt;
  const auto reply = xpc::decodeReply(receive().value_or(""), operation.reply);
  if (!reply || reply->callNumber != callNumber) return std::nullopt;
  return std::get<std::string>(reply->values[0]);
}

}  // namespace quorvane::test
