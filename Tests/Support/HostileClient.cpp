// A companion that misbehaves. Signed, it meets the helper of a test as its argument says:
//   flood   keeps as many forcing writes waiting as may wait, until it is cut off
//   crowd   enters with all the connections that are let in, each of which sends as many forcing
//           writes as may wait; prints how many they are, and stays
//   linger  stops fan 0, and leaves behind requests and what takes a minute to close
#include <unistd.h>

#include <iostream>
#include <vector>

#include "Platform/Linux/Channel/Connection.h"
#include "Support/Lingering.h"
#include "Support/RawChannel.h"

namespace {

using namespace quorvane;
using test::RawChannel;

std::string write(const std::string& key, std::int64_t value) {
  return xpc::encodeRequest(1, xpc::WriteFanKeyRequest{key, value, false});
}

const std::string force = write("F0Md", 1);

void flood() {
  const RawChannel channel;
  if (!channel.enter()) return;
  for (int sent = 0; channel.send(force); ++sent) {
    if (sent >= xpc::maxOutstandingReplies && !channel.receive()) return;
  }
}

/// Sends as many requests as may wait; the first forces fan 0.
void fill(const RawChannel& channel, const std::string& request) {
  channel.send(force);
  for (int waiting = 1; waiting < xpc::maxOutstandingReplies; ++waiting) channel.send(request);
}

/// Enters with all the connections that are let in.
std::vector<RawChannel> enterAsCrowd() {
  std::vector<RawChannel> channels;
  while (channels.empty()) {
    channels = std::vector<RawChannel>(200);
    std::erase_if(channels, [](const RawChannel& each) { return !each.enter(); });
  }
  return channels;
}

}  // namespace

int main(int, char** arguments) {
  const std::string_view manner = arguments[1];
  if (manner == "flood") flood();
  if (manner == "linger") {
    const RawChannel channel;
    if (!channel.enter()) return 1;
    fill(channel, write("F0Tg", 0));
    return test::sendLingering(channel.socket.get()) ? 0 : 1;
  }
  if (manner == "crowd") {
    const std::vector<RawChannel> channels = enterAsCrowd();
    for (const RawChannel& each : channels) fill(each, force);
    std::cout << channels.size() << std::endl;
    pause();
  }
}
