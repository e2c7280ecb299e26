// The helper's behaviour, as scenarios: the real service with its real time limits, on a fake SMC
// with two fans and a virtual clock. The simulation checks the same promises in random histories.
#include "QuorvaneFanHelper/FanHelperService.h"

#include <gtest/gtest.h>

#include "QuorvaneFanHelper/AuditLog.h"
#include "Support/ScriptedSMC.h"
#include "Support/VirtualDispatch.h"

namespace quorvane {

using namespace std::chrono_literals;

/// The messages to the audit log since the start, one per line.
std::string audited;

/// Replaces the helper's audit().
void audit(std::string_view message) {
  audited.append(message).append("\n");
}

struct FanHelper : testing::Test {
  FanHelper() {
    machine().reset();
    machine().setFanCount(2);
    for (const std::string fan : {"F0", "F1"}) {
      machine().addKey(fan + "Md", "ui8 ", 1, 0xC0, {0});
      machine().addKey(fan + "Tg", "fpe2", 2, 0xC0);
    }
    start();
  }
  ~FanHelper() override {
    service.reset();
    virtualdispatch::reset();
  }
  void start() {
    audited.clear();
    service = std::make_shared<FanHelperService>();
    service->startup();
  }

  /// Returns the client's reply: "true", the reason of a refusal, or "no reply".
  std::string write(const std::string& key, std::int64_t value) {
    reply = "no reply";
    service->writeFanKey(key, value, /*isFloat=*/false, [this](bool success, const auto& reason) {
      reply = success ? "true" : reason.value_or("");
    });
    virtualdispatch::runUntilIdle();
    return reply;
  }
  /// The modes of fan 0 and fan 1 in the hardware: "10" if only fan 0 is forced.
  static std::string modes() {
    return std::to_string(machine().keys["F0Md"][48]) + std::to_string(machine().keys["F1Md"][48]);
  }

  std::shared_ptr<FanHelperService> service;
  std::string reply;
};

TEST_F(FanHelper, PutsEveryFanIntoAutomaticModeWhenItStarts) {
  write("F1Md", 1);
  ASSERT_EQ(modes(), "01");
  start();  // after a crash, on the same hardware
  EXPECT_EQ(modes(), "00");
  EXPECT_EQ(audited, "helper 1.0.0 started; model=" + FanHelperService::model() + " fans=2\n");
}

TEST_F(FanHelper, KeepsAFanForcedWhileItsClientRenews) {
  EXPECT_EQ(write("F0Md", 1), "true");
  for (int renewal = 0; renewal < 10; ++renewal) {
    EXPECT_EQ(write("F0Tg", 2500), "true");
    virtualdispatch::advance(19s);
    EXPECT_EQ(modes(), "10");
  }
  EXPECT_EQ(machine().keys["F0Tg"][48] * 256 + machine().keys["F0Tg"][49], 2500 * 4) << "quarters";
}

// A client that crashes, hangs or is killed needs no other clean-up than its lease.
TEST_F(FanHelper, TakesAllFansBackWhenTheLeaseRunsOut) {
  write("F0Md", 1);
  write("F1Md", 1);
  virtualdispatch::advance(20s - 1ns);
  EXPECT_EQ(modes(), "11");
  virtualdispatch::advance(1ns);
  EXPECT_EQ(modes(), "00");
  EXPECT_TRUE(audited.ends_with(
      "lease expired — fail-safe\nrestore → automatic (lease expired); fans=[0, 1]\n"));
}

TEST_F(FanHelper, TakesAllFansBackAfterHalfAnHourThoughTheClientRenews) {
  for (auto renewal = 0s; renewal < 1800s; renewal += 5s) {
    write("F0Md", 1);
    ASSERT_EQ(modes(), "10");
    virtualdispatch::advance(5s);
  }
  EXPECT_EQ(modes(), "00");
  EXPECT_TRUE(
      audited.ends_with("max manual duration reached — fail-safe\n"
                        "restore → automatic (hard cap); fans=[0]\n"));
}

TEST_F(FanHelper, GivesBackTheFanThatAClientReleasesOrAllThatItRestores) {
  write("F0Md", 1);
  write("F1Md", 1);
  write("F0Md", 0);
  EXPECT_EQ(modes(), "01");
  service->restoreAuto([](bool success, const auto&) { EXPECT_TRUE(success); });
  virtualdispatch::runUntilIdle();
  EXPECT_EQ(modes(), "00");
  EXPECT_TRUE(virtualdispatch::deadlines().empty()) << "nothing is left to time";
}

TEST_F(FanHelper, HandsEveryFanBackAfterAWriteThatFails) {
  write("F0Md", 1);
  machine().keys.erase("F1Tg");
  EXPECT_EQ(write("F1Tg", 2500), "keyMissing");
  EXPECT_EQ(modes(), "00");
  EXPECT_TRUE(audited.ends_with("restore → automatic (write error); fans=[0]\n"));
}

TEST_F(FanHelper, RefusesOtherKeysAndValuesWithoutTouchingTheHardware) {
  machine().serve = [](const auto& call) { ADD_FAILURE() << "asked for " << call.key; };
  EXPECT_EQ(write("FNum", 3), "Refused: FNum is not a fan-control key");
  EXPECT_EQ(write("F0Md", 2), "Bad mode value");
  EXPECT_EQ(write("F0Tg", 12001), "RPM out of range");
  EXPECT_TRUE(audited.ends_with("fans=2\nREJECTED non-fan key FNum\n"));
}

// main() does this on SIGTERM and SIGINT.
TEST_F(FanHelper, HandsEveryFanBackAndWritesNothingMoreBeforeItEnds) {
  write("F0Md", 1);
  service->shutdownReleasing();
  EXPECT_EQ(modes(), "00");
  EXPECT_EQ(write("F0Md", 1), "no reply");
  EXPECT_EQ(modes(), "00");
}

}  // namespace quorvane
