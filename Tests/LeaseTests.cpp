// A client's lease, and fanctl force, which holds its fans with a lease: on a fake helper and a
// virtual clock.
#include "FanControlClient/Lease.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "Platform/Clock.h"
#include "Tools/FanctlForce.h"

namespace quorvane {

using namespace std::chrono_literals;

/// A fake helper with two fans, without a lease and a cap, and the time.
struct World {
  std::chrono::nanoseconds time{}, latency{};
  std::set<char> forced{};
  bool isUp = true, isConnected = true;
  std::string refusedKey{};
  /// For fanctl force: the time of the user's stop, and a fan that another client releases.
  std::chrono::nanoseconds stopTime = 24h;
  char lostFan = '-';
  /// The writes and the events, each after its second: "0 F0Md=1, 0 F0Tg=2500f, 0 forced 0, ".
  std::string log{};

  void note(const std::string& text) { log += std::to_string(time / 1s) + " " + text + ", "; }
  bool answers() {
    time += latency;
    isConnected = isConnected && isUp;
    return isConnected;
  }
} world;

std::chrono::nanoseconds monotonicTime() {
  return world.time;
}

class FanControlClient::Implementation {};
FanControlClient::FanControlClient() = default;
FanControlClient::~FanControlClient() = default;
const std::string& FanControlClient::error() const {
  return world.refusedKey;
}
bool FanControlClient::connect() {
  world.isConnected = world.isUp;
  return world.answers();
}
std::optional<std::string> FanControlClient::ping() {
  return world.answers() ? std::optional("ok") : std::nullopt;
}
std::optional<Outcome> FanControlClient::restoreAuto() {
  return std::nullopt;
}
std::optional<StatusReport> FanControlClient::status() {
  if (!world.answers()) return std::nullopt;
  const std::string forced(world.forced.begin(), world.forced.end());
  return StatusReport{{"fanCount", "2"}, {"forcedFans", forced}};
}
std::optional<Outcome> FanControlClient::writeFanKey(const std::string& key, std::int64_t value,
                                                     bool isFloat) {
  if (!world.answers()) return std::nullopt;
  world.note(key + "=" + std::to_string(value) + (isFloat ? "f" : ""));
  if (key == world.refusedKey) return Outcome{false, "no"};
  if (key.ends_with("Md") && value == 0) {
    world.forced.erase(key[1]);
  } else {
    world.forced.insert(key[1]);
  }
  return Outcome{true, {}};
}

using Action = void (*)(Lease& lease);

const Action hold0 = [](Lease& lease) { lease.hold(0, 2500); };
const Action hold1 = [](Lease& lease) { lease.hold(1, 3000); };
const Action slow0 = [](Lease& lease) { lease.hold(0, 9); };
const Action release1 = [](Lease& lease) { lease.release(1); };
const Action takeBack = [](Lease&) { world.forced.clear(); };
const Action cutOff = [](Lease&) { world.isConnected = false; };
const Action leave = [](Lease&) { world.isUp = false; };
const Action end = [](Lease&) {};

/// Runs the actions at their times, and before each the lease's work that is due earlier.
void expectLog(const std::vector<std::pair<std::chrono::seconds, Action>>& actions,
               const std::string& lastOfLog, const World& start = {}) {
  world = start;
  FanControlClient client;
  Lease lease(client, [](int fan, FanEvent event, const std::string&) {
    constexpr const char* names[] = {"forced", "unreachable", "given", "over", "taken", "refused"};
    world.note(names[static_cast<int>(event)] + std::string(" ") + std::to_string(fan));
  });
  for (const auto& [when, act] : actions) {
    for (auto due = lease.advance(); due && *due < when; due = lease.advance()) {
      world.time = std::max(world.time, *due);
    }
    world.time = std::max<std::chrono::nanoseconds>(world.time, when);
    act(lease);
  }
  EXPECT_TRUE(world.log.ends_with(lastOfLog)) << world.log << "and not " << lastOfLog;
}

const std::string held = "0 F0Md=1, 0 F0Tg=2500f, 0 forced 0, ";

TEST(Lease, HoldsFansForOnePeriodAndNeverAgainstTheWillOfAnother) {
  expectLog({{0s, hold0}, {7s, hold1}, {9s, release1}, {11s, end}},
            held +
                "5 F0Tg=2500f, 7 F1Md=1, 7 F1Tg=3000f, 7 forced 1, 9 F1Md=0, 9 given 1, "
                "10 F0Tg=2500f, ");
  expectLog({{0s, hold0}, {1795s, hold1}, {1900s, end}},
            "1785 F0Tg=2500f, 1795 F1Md=0, 1795 over 1, 1799 F0Md=0, 1799 over 0, ");
  expectLog({{0s, hold0}, {1900s, end}}, "1790 F0Tg=2500f, 1819 F0Md=0, 1819 over 0, ",
            {.latency = 10s});
  expectLog({{0s, hold0}, {6s, takeBack}, {20s, end}}, held + "5 F0Tg=2500f, 10 taken 0, ");
  expectLog({{0s, hold0}, {2s, takeBack}, {2s, slow0}, {9s, end}}, held + "2 taken 0, ");
  expectLog({{0s, hold0}, {9s, end}}, "0 F0Md=1, 0 F0Tg=2500f, 0 F0Md=0, 0 refused 0, ",
            {.refusedKey = "F0Tg"});
}

TEST(Lease, OutlivesItsConnectionAndItsHelper) {
  expectLog({{0s, hold0}, {6s, cutOff}, {14s, end}},
            "10 unreachable 0, 10 F0Tg=2500f, 10 forced 0, ");
  // A helper that has restarted has restored its fans.
  expectLog({{0s, hold0}, {6s, cutOff}, {6s, takeBack}, {20s, end}},
            held + "5 F0Tg=2500f, 10 unreachable 0, 10 taken 0, ");
  expectLog({{0s, hold0}, {6s, leave}, {60s, end}}, "10 unreachable 0, 25 taken 0, ");
  expectLog({{0s, hold0}, {60s, end}}, "0 refused 0, ", {.isUp = false});
}

struct VirtualStop : fanctl::StopRequest {
  bool isMadeBefore(std::chrono::nanoseconds deadline) override {
    world.forced.erase(world.lostFan);
    world.time = std::max(world.time, std::min(deadline, world.stopTime));
    return world.time >= world.stopTime;
  }
};

void expectForce(const fanctl::ForceRequests& requests, fanctl::ExitStatus status,
                 const std::string& lastWrites, const World& start = {}) {
  world = start;
  FanControlClient client;
  VirtualStop stop;
  EXPECT_EQ(fanctl::runForce(client, stop, requests), status);
  EXPECT_TRUE(world.log.ends_with(lastWrites)) << world.log << "and not " << lastWrites;
}

TEST(Fanctl, ForceGivesAllItsFansBackWhenItIsStoppedOrOneIsLost) {
  const fanctl::ForceRequests one = {{0, 2500}}, both = {{1, 3000}, {0, 2500}};
  expectForce(one, fanctl::done, "1785 F0Tg=2500f, 1799 F0Md=0, ");
  expectForce(both, fanctl::done, "5 F0Tg=2500f, 5 F1Tg=3000f, 6 F0Md=0, 6 F1Md=0, ",
              {.stopTime = 6s});
  expectForce(both, fanctl::refused, "0 F1Tg=3000f, 0 F0Md=1, 0 F0Md=0, 0 F1Md=0, ",
              {.refusedKey = "F0Md"});
  expectForce(both, fanctl::refused, "5 F1Tg=3000f, 5 F1Md=0, ", {.lostFan = '0'});
  expectForce({{0, 2500}, {2, 2500}}, fanctl::badUsage, "");
  expectForce(one, fanctl::unreachable, "", {.isUp = false});
}

}  // namespace quorvane
