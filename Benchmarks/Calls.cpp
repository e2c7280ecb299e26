// Single calls, as a companion makes them, and pipelined calls.
#include "Bench.h"

namespace quorvane::bench {
namespace {

void receive(const test::RawChannel& channel) {
  char reply[1024];
  if (recv(channel.socket.get(), reply, sizeof reply, 0) <= 0) throw std::runtime_error("cut off");
}

using Measure = std::function<void(const test::RawChannel&, Samples&)>;

/// Measures the helper and its floor alternately. The first round of each is the warm-up.
void compare(const Setting& setting, Figure figure, Work work, int rounds, const Measure& measure) {
  const test::RawChannel channel = connect();
  const Floor floor(setting.mac, work);
  Samples warmUp;
  measure(channel, warmUp);
  measure(floor.channel, warmUp);
  for (; rounds > 0; --rounds) {
    measure(channel, figure.measured);
    measure(floor.channel, figure.floor);
  }
  print(figure);
}

void measureCall(const Setting& setting, const std::string& what, const std::string& request,
                 Work floor, double aim) {
  compare(setting, {what, "us", {}, {}, aim}, floor, setting.rounds(200),
          [&request](const test::RawChannel& channel, Samples& samples) {
            for (int i = 0; i < 200; ++i) {
              const auto start = Clock::now();
              call(channel, request);
              samples.push_back(microsecondsSince(start));
            }
          });
}

}  // namespace

test::RawChannel connect() {
  test::RawChannel channel;
  if (!channel.enter()) throw std::runtime_error("not admitted");
  return channel;
}

void call(const test::RawChannel& channel, const std::string& request) {
  channel.send(request);
  receive(channel);
}

void pipeline(const test::RawChannel& channel, const std::string& request, int count) {
  constexpr int underWay = 64;
  for (int i = 0; i < count + underWay; ++i) {
    if (i >= underWay) receive(channel);
    if (i < count) channel.send(request);
  }
}

void measureCalls(const Setting& setting) {
  const auto process = setting.mac.start(fastHelper);
  measureCall(setting, "ping", xpc::encodeRequest(1, xpc::PingRequest()), Work::echo, 1.10);
  measureCall(setting, "status", xpc::encodeRequest(1, xpc::StatusRequest()), Work::hop, 1.25);
  measureCall(setting, "write", test::writeRequest("F0Tg", 2500), Work::hopAndLine, 1.20);
}

void measurePipelines(const Setting& setting) {
  constexpr int count = 4000;
  const auto process = setting.mac.start(fastHelper);
  // Three quarters of the floor's rate is four thirds of its time.
  const Figure figure{"write, 64 under way", "us", {}, {}, 4.0 / 3};
  compare(setting, figure, Work::hopAndLine, setting.rounds(100),
          [](const test::RawChannel& channel, Samples& samples) {
            const auto start = Clock::now();
            pipeline(channel, test::writeRequest("F0Tg", 2500), count);
            samples.push_back(microsecondsSince(start) / count);
          });
}

}  // namespace quorvane::bench
