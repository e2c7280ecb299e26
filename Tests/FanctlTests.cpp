// fanctl force against a helper and a clock of the test's own.
#include <gtest/gtest.h>

#include "Platform/Clock.h"
#include "Tools/FanctlForce.h"

namespace quorvane {

using namespace std::chrono_literals;

/// What a session meets: a helper, the time, a user.
struct World {
  std::chrono::nanoseconds stopTime = 24h;
  std::string refusedKey{};
  /// Once anything has been written; nothing if the helper is gone then.
  std::optional<StatusReport> report = StatusReport{{"forcedFans", "0,1"}};
  std::chrono::nanoseconds time{};
  std::string written{};
} world;

std::chrono::nanoseconds monotonicTime() {
  return world.time;
}

struct VirtualStop : fanctl::StopRequest {
  bool isMadeBefore(std::chrono::nanoseconds deadline) override {
    world.time = std::max(world.time, std::min(deadline, world.stopTime));
    return world.time >= world.stopTime;
  }
};

class FanControlClient::Implementation {};
FanControlClient::FanControlClient() = default;
FanControlClient::~FanControlClient() = default;
bool FanControlClient::connect() {
  return world.report.has_value();
}
const std::string& FanControlClient::error() const {
  return world.refusedKey;
}
std::optional<std::string> FanControlClient::ping() {
  return "ok";
}
std::optional<Outcome> FanControlClient::restoreAuto() {
  return Outcome{true, {}};
}
std::optional<StatusReport> FanControlClient::status() {
  return world.written.empty() ? StatusReport{{"fanCount", "2"}} : world.report;
}
std::optional<Outcome> FanControlClient::writeFanKey(const std::string& key, std::int64_t value,
                                                     bool isFloat) {
  world.written += std::to_string(world.time / 1s) + " " + key + "=" + std::to_string(value);
  world.written += isFloat ? "f " : " ";
  return Outcome{key != world.refusedKey, {}};
}

namespace fanctl {

void expectSession(const World& start, ExitStatus status, const std::string& lastWrites,
                   const ForceRequests& requests = {{0, 2500}}) {
  world = start;
  FanControlClient client;
  VirtualStop stop;
  EXPECT_EQ(runForce(client, stop, requests), status);
  EXPECT_TRUE(world.written.ends_with(lastWrites)) << world.written << " and not " << lastWrites;
}

TEST(Fanctl, ForceOpensOnePeriodAndGivesTheFanBack) {
  expectSession({.stopTime = 12s}, done, "5 F0Tg=2500f 10 F0Tg=2500f 12 F0Md=0 ");
  expectSession({}, done, "1785 F0Tg=2500f 1799 F0Md=0 ");
  expectSession({}, badUsage, "", {{0, 2500}, {2, 2500}});
  expectSession({.report = std::nullopt}, refused, "");
  const ForceRequests both = {{1, 3000}, {0, 2500}};
  expectSession({.stopTime = 6s}, done, "5 F0Tg=2500f 5 F1Tg=3000f 6 F0Md=0 6 F1Md=0 ", both);
  expectSession({.refusedKey = "F0Md"}, refused, "0 F1Tg=3000f 0 F0Md=1 0 F0Md=0 0 F1Md=0 ", both);
  expectSession({.report = {{{"forcedFans", "1"}}}}, refused, "5 F1Tg=3000f 5 F1Md=0 ", both);
}

}  // namespace fanctl
}  // namespace quorvane
