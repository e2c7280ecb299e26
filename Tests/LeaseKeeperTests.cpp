// The lease keeper's decisions against a helper and a clock of the test's own.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "FanControlClient/Lease.h"
#include "Platform/Clock.h"

namespace quorvane {

using namespace std::chrono_literals;

/// A helper without a lease or a cap: what it takes back, the scenario says.
struct World {
  std::chrono::nanoseconds time{}, latency{};
  std::set<char> forced{};
  bool isUp = true, isConnected = false;
  std::string refusedKey{}, log{};

  void note(const std::string& text) { log += std::to_string(time / 1s) + " " + text + ", "; }
  bool answers() {
    time += latency;
    return isConnected = isConnected && isUp;
  }
  void restart() { isConnected = false, forced.clear(); }
} world;

std::chrono::nanoseconds monotonicTime() {
  return world.time;
}

class FanControlClient::Implementation {};
FanControlClient::FanControlClient() = default;
FanControlClient::~FanControlClient() = default;
bool FanControlClient::connect() {
  world.isConnected = world.isUp;
  return ping().has_value();
}
const std::string& FanControlClient::error() const {
  return world.refusedKey;
}
std::optional<std::string> FanControlClient::ping() {
  return world.answers() ? std::optional("ok") : std::nullopt;
}
std::optional<StatusReport> FanControlClient::status() {
  if (!world.answers()) return std::nullopt;
  return StatusReport{{"forcedFans", std::string(world.forced.begin(), world.forced.end())}};
}
std::optional<Outcome> FanControlClient::writeFanKey(const std::string& key, std::int64_t value,
                                                     bool isFloat) {
  if (!world.answers()) return std::nullopt;
  world.note(key + "=" + std::to_string(value) + (isFloat ? "f" : ""));
  if (key == world.refusedKey) return Outcome{false, "no"};
  key[2] == 'M' && value == 0 ? world.forced.erase(key[1]) : world.forced.insert(key[1]).second;
  return Outcome{true, {}};
}

using Step = std::pair<std::chrono::seconds, std::function<void(Lease&)>>;

/// Takes the steps at their times; the last of them ends the scenario.
void expectLog(const std::vector<Step>& steps, const std::string& end) {
  world = World();
  FanControlClient client;
  Lease lease(client, [](int fan, FanEvent event, const std::string&) {
    constexpr const char* names[] = {"forced", "unreachable", "given", "over", "taken", "refused"};
    world.note(names[static_cast<int>(event)] + std::string(" ") + std::to_string(fan));
  });
  for (const auto& [when, act] : steps) {
    for (auto due = lease.advance(); due && *due < when; due = lease.advance()) {
      world.time = std::max(world.time, *due);
    }
    world.time = std::max<std::chrono::nanoseconds>(world.time, when);
    act(lease);
  }
  EXPECT_TRUE(world.log.ends_with(end)) << world.log << "and not " << end;
}

TEST(LeaseKeeper, HoldsFansForOnePeriodAndNeverAgainstTheWillOfAnother) {
  const Step hold0{0s, [](Lease& lease) { lease.hold(0, 2500); }};
  const Step hold1{7s, [](Lease& lease) { lease.hold(1, 3000); }};
  const auto nothing = [](Lease&) {};
  const std::string held = "0 F0Md=1, 0 F0Tg=2500f, 0 forced 0, ";
  expectLog({hold0, hold1, {9s, [](Lease& lease) { lease.release(1); }}, {11s, nothing}},
            held +
                "5 F0Tg=2500f, 7 F1Md=1, 7 F1Tg=3000f, 7 forced 1, 9 F1Md=0, 9 given 1, "
                "10 F0Tg=2500f, ");
  expectLog({hold0, {2s, [](Lease& lease) { lease.hold(0, 9); }}, {3s, nothing}},
            held + "2 F0Tg=9f, ");
  // The cap, also where each call takes as long as it may.
  expectLog({hold0, {1795s, hold1.second}, {1900s, nothing}},
            "1785 F0Tg=2500f, 1795 F1Md=0, 1795 over 1, 1799 F0Md=0, 1799 over 0, ");
  expectLog({{0s, [](Lease&) { world.latency = 10s; }}, hold0, {1900s, nothing}},
            "1790 F0Tg=2500f, 1819 F0Md=0, 1819 over 0, ");
  // Given back by another, also just when its owner asks for another speed; refused.
  expectLog({hold0, {6s, [](Lease&) { world.forced.clear(); }}, {20s, nothing}},
            held + "5 F0Tg=2500f, 10 taken 0, ");
  expectLog(
      {hold0, {2s, [](Lease& lease) { world.forced.clear(), lease.hold(0, 9); }}, {9s, nothing}},
      held + "2 taken 0, ");
  expectLog({{0s, [](Lease&) { world.refusedKey = "F0Tg"; }}, hold0, {9s, nothing}},
            "0 F0Md=1, 0 F0Tg=2500f, 0 F0Md=0, 0 refused 0, ");
  // A helper that restarts, one that cuts us off, one that stays away, and one that never was.
  const Step restart{6s, [](Lease&) { world.restart(); }};
  expectLog({hold0, restart, {20s, nothing}},
            held + "5 F0Tg=2500f, 10 unreachable 0, 10 taken 0, ");
  expectLog({hold0, restart, {7s, [](Lease& lease) { lease.release(0); }}, {8s, hold0.second}},
            "7 F0Md=0, 7 given 0, 8 F0Md=1, 8 F0Tg=2500f, 8 forced 0, ");
  expectLog({hold0, {6s, [](Lease&) { world.isConnected = false; }}, {14s, nothing}},
            "10 unreachable 0, 10 F0Tg=2500f, 10 forced 0, ");
  const Step leave{6s, [](Lease&) { world.isUp = false; }};
  expectLog({hold0, leave, {60s, nothing}}, "5 F0Tg=2500f, 10 unreachable 0, 25 taken 0, ");
  expectLog({leave, hold0, {60s, nothing}}, "6 refused 0, ");
}

}  // namespace quorvane
