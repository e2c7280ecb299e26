// A companion that misbehaves, and the one that suffers from it. Signed, it meets the helper of a
// test as its argument says:
//   flood   sends forcing writes as fast as the channel takes them, until it is cut off
//   mute    again and again tries to enter, and sends requests until it is cut off, for it reads no
//           reply
//   crowd   tries to enter 200 times, and again if nobody gets in; each connection let in forces a
//           fan 100 times; says how many they are, and stays
//   fill    the same, but each sends as many requests of the greatest size as may wait
//   linger  stops fan 0, and leaves behind requests and what takes a minute to close
//   ping    is answered 300 pings, or fails, and says how long the slowest in a hundred took
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <vector>

#include "Platform/Linux/Channel/Connection.h"
#include "Support/Lingering.h"
#include "Support/RawChannel.h"

namespace {

using namespace quorvane;
using test::RawChannel;

/// Until it is cut off.
void pester(const std::string& request, bool isReading) {
  const RawChannel channel;
  if (!channel.enter()) return;
  char reply[1024];
  while (channel.send(request)) {
    while (isReading && recv(channel.socket.get(), reply, sizeof reply, MSG_DONTWAIT) > 0) {
    }
  }
}

/// Once its ping is answered, a channel's requests all wait.
void fill(const std::vector<RawChannel>& channels, const std::string& first) {
  std::string longest(xpc::maxRequestSize, 'k');
  longest.resize(2 * longest.size() -
                 xpc::encodeRequest(1, xpc::WriteFanKeyRequest{longest}).size());
  const std::string request = xpc::encodeRequest(1, xpc::WriteFanKeyRequest{longest});
  channels.front().send(first);
  for (const RawChannel& each : channels) {
    for (int i = &each == &channels.front() ? 1 : 0; i < xpc::maxOutstandingReplies; ++i) {
      each.send(request);
    }
    if (!each.ping()) std::exit(1);
  }
}

int ping() {
  const RawChannel channel;
  if (!channel.enter()) return 1;
  std::vector<std::chrono::nanoseconds> durations(300);
  for (auto& duration : durations) {
    const auto begin = std::chrono::steady_clock::now();
    if (!channel.ping()) return 1;
    duration = std::chrono::steady_clock::now() - begin;
  }
  std::ranges::sort(durations);
  std::cout << "ping, p99: " << durations[durations.size() * 99 / 100].count() / 1000 << " us\n";
  return 0;
}

}  // namespace

int main(int, char** arguments) {
  const std::string_view manner = arguments[1];
  if (manner == "ping") return ping();
  const std::string force = xpc::encodeRequest(1, xpc::WriteFanKeyRequest{"F0Md", 1, false});
  const std::string status = xpc::encodeRequest(1, xpc::StatusRequest());
  if (manner == "linger") {
    const RawChannel channel;
    if (!channel.enter()) return 1;
    for (int i = 0; i < xpc::maxOutstandingReplies; ++i) {
      channel.send(xpc::encodeRequest(1, xpc::WriteFanKeyRequest{"F0Tg", 0, false}));
    }
    return test::sendLingering(channel.socket.get()) ? 0 : 1;
  }
  if (manner == "flood") pester(force, /*isReading=*/true);
  for (; manner == "mute"; poll(nullptr, 0, /*milliseconds=*/20)) {
    pester(status, /*isReading=*/false);
  }
  while (manner == "crowd" || manner == "fill") {
    std::vector<RawChannel> channels(200);
    std::erase_if(channels, [](const RawChannel& each) { return !each.enter(); });
    if (channels.empty()) continue;
    if (manner == "fill") fill(channels, force);
    for (int i = 0; manner == "crowd" && i < 100; ++i) {
      for (const RawChannel& each : channels) each.send(force);
    }
    std::cout << channels.size() << std::endl;
    pause();
  }
}
