#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <utility>

#include "Tools/FanctlBatch.h"
#include "Tools/FanctlForce.h"

namespace quorvane {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using fanctl::ForceClock;

/// A helper with fan 0 alone, lease and cap on a virtual clock: what answers behind the client.
struct World {
  ForceClock::Duration now{}, latency{}, leaseEnd{}, capEnd{}, eventTime = 24h;
  bool forced = false, stopped = false, lost = false;
  int periods = 0, lapses = 0;
  std::string refusedKey, calls;
  std::function<void()> event;

  void pass(ForceClock::Duration time) {
    now += time;
    if (event && now >= eventTime) std::exchange(event, nullptr)();
    if (forced && now >= std::min(leaseEnd, capEnd)) {
      forced = false;
      ++lapses;
    }
  }
  std::optional<FanControlClient::Outcome> write(const std::string& key, std::int64_t value) {
    pass(latency);
    if (lost) return std::nullopt;
    if (key == refusedKey) return FanControlClient::Outcome{false, "RPM\tout of range"};
    const bool forces = key != "F0Md" || value != 0;
    if (forces && !forced) {
      ++periods;
      capEnd = now + 1800s;
    }
    forced = forces;
    leaseEnd = now + 20s;
    return FanControlClient::Outcome{true, std::nullopt};
  }
};

World world;

class VirtualClock : public ForceClock {
 public:
  Duration now() override { return world.now; }
  bool stopRequestedBy(Duration deadline) override {
    if (world.event) deadline = std::min(deadline, world.eventTime);
    world.pass(std::max(deadline - world.now, Duration{}));
    return world.stopped;
  }
};

}  // namespace

class FanControlClient::Implementation {};

FanControlClient::FanControlClient() = default;
FanControlClient::~FanControlClient() = default;

std::optional<FanControlClient::Outcome> FanControlClient::writeFanKey(const std::string& key,
                                                                       std::int64_t value,
                                                                       bool isFloat) {
  world.calls += key + "=" + std::to_string(value) + (isFloat ? "f " : " ");
  return world.write(key, value);
}

std::optional<FanControlClient::Outcome> FanControlClient::restoreAuto() {
  world.calls += "auto ";
  return world.write("F0Md", 0);
}

std::optional<StatusReport> FanControlClient::status() {
  world.pass(world.latency);
  if (world.lost) return std::nullopt;
  return StatusReport{{"model", "two\twords"}, {"forcedFans", world.forced ? "0" : ""}};
}

std::optional<std::string> FanControlClient::ping() {
  return world.lost ? std::nullopt : std::optional<std::string>("ok 1.0.0");
}

const std::string& FanControlClient::error() const {
  static const std::string text = "the helper is gone";
  return text;
}

namespace {

/// The exit status, and the answers behind it.
std::string batch(const std::string& lines) {
  std::istringstream commands(lines);
  std::ostringstream answers;
  FanControlClient client;
  const int status = fanctl::runBatch(client, commands, answers);
  return std::to_string(status) + ": " + answers.str();
}

TEST(Fanctl, BatchAnswersEachLineWithOne) {
  world = World();
  world.refusedKey = "F1Tg";
  EXPECT_EQ(batch("ping\nwrite\tF0Tg\t2500\tfloat\nwrite\tF1Tg\t-9223372036854775808\t\n"
                  "sleep\t0.001\nstatus\nwrite\t\t9223372036854775807\nauto"),
            "0: ok 1.0.0\ntrue\nfalse\tRPM out of range\n"
            "true\nmodel=two words\tforcedFans=0\ntrue\ntrue\n");
  EXPECT_EQ(world.calls, "F0Tg=2500f F1Tg=-9223372036854775808 =9223372036854775807 auto ");
  world.lost = true;
  EXPECT_EQ(batch("sleep\t0\nping\nauto\n"), "3: true\n");
}

TEST(Fanctl, BatchEndsAtAMalformedLine) {
  world = World();
  std::istringstream malformed(
      "\npong\nping\t\nPing\nping\r\nwrite F0Tg 0\nwrite\nwrite\tF0Tg\nwrite\tF0Tg\t\n"
      "write\tF0Tg\t0\tFloat\nwrite\tF0Tg\t0\tfloat\t\nwrite\tF0Tg\t+1\nwrite\tF0Tg\t 1\n"
      "write\tF0Tg\t1.0\nwrite\tF0Tg\t9223372036854775808\nwrite\tF0T\xFF\t0\nsleep\nsleep\t\n"
      "sleep\t-1\nsleep\tinf\nsleep\tnan\nsleep\t1e3\nsleep\t3600.1\nsleep\t1s\nping\0\n"s);
  for (std::string line; std::getline(malformed, line);) {
    EXPECT_EQ(batch("ping\n" + line + "\nping\n"), "2: ok 1.0.0\n") << line;
  }
  const std::string longest = "write\t" + std::string(fanctl::maxLineBytes - 8, 'k') + "\t0";
  EXPECT_EQ(batch(longest + "\n" + longest), "0: true\ntrue\n");
  EXPECT_EQ(batch(longest + "0\nping\n"), "2: ");
}

/// However a session ends, and whatever happens in it: one period, and a fan that is given back.
TEST(Fanctl, ForceOpensOnePeriodAndLeavesNoFanForced) {
  struct Row {
    const char* what;
    ForceClock::Duration time;
    std::function<void()> event;
    int status;
    ForceClock::Duration end;
    int lapses;
    const char* lastWords;
  };
  const Row rows[] = {
      {"a signal", 12s, [] { world.stopped = true; }, 0, 12s, 0, "control as asked\n"},
      {"the cap", 24h, nullptr, 0, 1799s, 0, "period, 1800 seconds\n"},
      {"slow before the cap", 1780s, [] { world.latency = 6s; }, 0, 1805s, 1, "1800 seconds\n"},
      {"taken back", 7s, [] { world.forced = false; }, 1, 10s, 0, "rpm\n"},
      {"the machine slept", 33s, [] { world.now += 60s; }, 1, 93s, 1, "rpm\n"},
      {"bad target", 0s, [] { world.refusedKey = "F0Tg"; }, 1, 0s, 0, ""},
      {"helper lost", 7s, [] { world.lost = !(world.forced = false); }, 3, 10s, 0, "rpm\n"},
  };
  for (const Row& row : rows) {
    world = World();
    world.eventTime = row.time;
    world.event = row.event;
    FanControlClient client;
    VirtualClock clock;
    std::ostringstream output;
    EXPECT_EQ(fanctl::runForce(client, clock, {'0', 2500}, output, false), row.status) << row.what;
    EXPECT_EQ(world.now, row.end) << row.what;
    EXPECT_EQ(world.lapses, row.lapses) << row.what;
    EXPECT_EQ(world.periods, 1) << row.what;
    EXPECT_FALSE(world.forced) << row.what;
    EXPECT_TRUE(world.calls.starts_with("F0Md=1 F0Tg=2500f ")) << world.calls;
    EXPECT_TRUE(output.str().ends_with(row.lastWords)) << row.what << ": " << output.str();
  }
}

}  // namespace
}  // namespace quorvane
