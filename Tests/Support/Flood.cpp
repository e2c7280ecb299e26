// A client that sends forcing writes as fast as the channel takes them, so that as many as it may
// wait in the helper, until it is cut off. Signed, it floods the helper of a ProcessTest.
#include <array>

#include "Support/RawChannel.h"

int main() {
  using namespace quorvane;
  const test::RawChannel channel;
  const std::array<xpc::Value, 3> arguments{std::string("F0Tg"), std::int64_t{3000}, false};
  const std::string write = xpc::encodeRequest(1, fanControlOperations[0].selector, arguments);
  if (!channel.connect() || !channel.send(channel.responseToChallenge())) return 1;
  std::array<char, 1024> reply{};
  while (channel.send(write)) {
    while (recv(channel.socket.get(), reply.data(), reply.size(), MSG_DONTWAIT) > 0) {
    }
  }
}
