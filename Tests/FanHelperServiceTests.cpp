#include "QuorvaneFanHelper/FanHelperService.h"

#include <gtest/gtest.h>

#include <chrono>
#include <sstream>

#include "Support/FakeSystem.h"
#include "Support/ScriptedSMC.h"
#include "Support/TemporaryRoot.h"
#include "Support/VirtualDispatch.h"

namespace quorvane {
namespace {

using namespace std::literals;
using virtualdispatch::advance, virtualdispatch::armedTimers;

constexpr auto writing = ScriptedSMC::Operation::write;
const std::string leaseRestore = "lease expired — fail-safe; restore → automatic (lease expired); ";

const std::string writeErrorRestore = "restore → automatic (write error); fans=[0, 1]";

class FanHelperServiceTest : public testing::Test {
 protected:
  FanHelperServiceTest() {
    machine().reset();
    fakeSystem() = {};
    virtualdispatch::reset();
    machine().setFanCount(3);
    for (int fan = 0; fan < 3; ++fan) machine().addFan(fan, "fpe2");
    service = std::make_shared<FanHelperService>();
  }

  void start() {
    service->startup();
    happened();
  }
  /// Sets `answer` to "true" or to the message of a refusal.
  FanControlXPC::OutcomeReply into(std::string& answer) {
    return [&answer](bool success, const std::optional<std::string>& message) {
      EXPECT_EQ(answer, "") << "answered twice";
      EXPECT_EQ(success, !message);
      answer = message.value_or("true");
    };
  }
  std::string write(const std::string& key, std::int64_t value, bool isFloat = false) {
    std::string answer;
    service->writeFanKey(key, value, isFloat, into(answer));
    virtualdispatch::runUntilIdle();
    return answer;
  }
  StatusReport status() {
    StatusReport report;
    service->status([&report](StatusReport answer) { report = std::move(answer); });
    virtualdispatch::runUntilIdle();
    return report;
  }
  std::string forced() { return status().at(4).second; }

  /// What was done since the last look: the keys written to the SMC, with their last data byte, and
  /// the lines of the audit log, without timestamps: "F0Md=1 F1Md=0 | first line; second line".
  std::string happened() {
    std::string text;
    for (const auto& call : machine().takeCalls()) {
      if (call.operation != writing) continue;
      const unsigned last = call.request[47 + call.request[28]];
      text += (text.empty() ? "" : " ") + call.key + "=" + std::to_string(last);
    }
    const std::string log = root.read(FanControlConstants::auditLogPath);
    std::istringstream fresh(log.substr(auditedSoFar));
    auditedSoFar = log.size();
    const char* separator = " | ";
    for (std::string line; std::getline(fresh, line); separator = "; ") {
      text += separator + line.substr(22);
    }
    return text;
  }

  TemporaryRoot root;
  std::shared_ptr<FanHelperService> service;
  std::size_t auditedSoFar = 0;
};

TEST_F(FanHelperServiceTest, StartupPutsEveryCountedFanIntoAutomatic) {
  EXPECT_TRUE(machine().takeCalls().empty()) << "construction touches no SMC";
  service->startup();
  EXPECT_EQ(happened(), "F0Md=0 F1Md=0 F2Md=0 | helper 1.0.0 started; model=Mac14,2 fans=3");
  for (const std::uint32_t size : {1U, 0U}) {  // a count of zero, and a value of no bytes
    machine().addKey("FNum", "ui8 ", size, 0xC0, {0});
    service = std::make_shared<FanHelperService>();
    service->startup();
    EXPECT_EQ(happened(), "F0Md=0 | helper 1.0.0 started; model=Mac14,2 fans=0");
  }
  EXPECT_TRUE(fakeSystem().log.empty());
}

TEST_F(FanHelperServiceTest, WithoutAnSMCItServesOnAndRefusesWrites) {
  machine().serviceNames.clear();
  service->startup();
  EXPECT_EQ(happened(), " | helper 1.0.0 started; model=Mac14,2 fans=0");
  EXPECT_EQ(fakeSystem().log, std::vector{"error FanHelper: SMC open failed: notOpen"s});
  EXPECT_EQ(write("FNum", 1), "SMC not open");
  EXPECT_EQ(write("F0Md", 1), "SMC not open");
  std::string restored;
  service->restoreAuto(into(restored));
  EXPECT_EQ(status().at(2).second + status().at(3).second, "00");
  EXPECT_EQ(restored, "true");
  service->shutdownReleasing();
  EXPECT_EQ(happened(), "");
}

TEST_F(FanHelperServiceTest, ModelIsReadOnceAndMadeValid) {
  fakeSystem().model = "Mac\xFF";  // neither valid UTF-8 nor ended by a NUL
  service->startup();
  EXPECT_EQ(status().at(1).second, "Mac\uFFFD");
  fakeSystem().model = std::nullopt;
  EXPECT_EQ(status().at(1).second, "Mac\uFFFD");
}

TEST_F(FanHelperServiceTest, ModelIsUnknownWithoutAValue) {
  fakeSystem().model = std::nullopt;
  EXPECT_EQ(FanHelperService::model(), "Unknown");
}

TEST_F(FanHelperServiceTest, EveryOutcomeOfAWrite) {
  start();
  struct Row {
    const char* key;
    std::int64_t value;
    bool isFloat;
    std::string answer, happened, forced;
  };
  const std::string range = "RPM out of range", mode = "Bad mode value";
  const Row rows[] = {{"F0Tg", 12000, true, "true", "F0Tg=128 | write F0Tg=12000", "0"},
                      {"F0Tg", 0, false, "true", "F0Tg=0 | write F0Tg=0", "0"},
                      {"F1Md", 1, false, "true", "F1Md=1 | write F1Md=1", "0,1"},
                      {"F2Md", 0, false, "true", "F2Md=0 | write F2Md=0", "0,1"},
                      {"F0Tg", 12001, false, range, "", "0,1"},
                      {"F0Tg", -1, false, range, "", "0,1"},
                      {"F0Md", 1, true, mode, "", "0,1"},
                      {"F0Md", 2, false, mode, "", "0,1"},
                      {"F0Md", 256, false, mode, "", "0,1"},
                      {"F0Md", -1, false, mode, "", "0,1"}};
  for (const Row& row : rows) {
    EXPECT_EQ(write(row.key, row.value, row.isFloat), row.answer) << row.key << "=" << row.value;
    EXPECT_EQ(happened(), row.happened) << row.key << "=" << row.value;
    EXPECT_EQ(forced(), row.forced) << row.key << "=" << row.value;
  }
  for (const std::string key : {"", "FNum", "F+Md", "FAMd", "F0Tx", "f0Md", "F0md", "F10Tg", "F0M",
                                "F0Md ", "F:Md", "F/Md", "F\u0660Md", "F0Md\u0301"}) {
    EXPECT_EQ(write(key, 1), "Refused: " + key + " is not a fan-control key");
    EXPECT_EQ(happened(), " | REJECTED non-fan key " + key);
  }
  machine().addFan(9, "flt ");
  EXPECT_EQ(write("F9Tg", 2500), "true");
  EXPECT_EQ(forced(), "0,1,9");
}

TEST_F(FanHelperServiceTest, FailedWriteHandsEveryFanBack) {
  start();
  machine().failCalls({"F0Md", writing}, kIOReturnBadArgument);
  machine().failResults({"F2Tg", writing}, 132);
  const std::pair<const char*, const char*> rows[] = {
      {"F0Md", "callFailed(-536870206)"}, {"F2Tg", "resultError(132)"}, {"F7Tg", "keyMissing"}};
  for (const auto& [key, error] : rows) {
    write("F1Md", 1);
    write("F0Tg", 3000);
    happened();
    EXPECT_EQ(write(key, 1), error);
    EXPECT_TRUE(happened().ends_with("F0Md=0 F1Md=0 | " + writeErrorRestore)) << key;
    EXPECT_EQ(machine().value("F1Md"), ScriptedSMC::Bytes{0}) << key;
    EXPECT_EQ(forced(), "") << key;
    EXPECT_EQ(armedTimers(), 0U) << key;
  }
}

TEST_F(FanHelperServiceTest, LeaseRunsOutTwentySecondsAfterTheLastForcingWrite) {
  start();
  write("F0Md", 1);
  advance(19s);
  write("F0Tg", 2500);
  advance(15s);
  // None of these renews.
  status();
  service->ping([](const std::string&) {});
  write("F1Tg", -1);
  write("nope", 1);
  write("F2Md", 0);
  advance(5s - 1ns);
  EXPECT_EQ(forced(), "0");
  happened();
  advance(1ns);
  EXPECT_EQ(happened(), "F0Md=0 | " + leaseRestore + "fans=[0]");
  EXPECT_EQ(fakeSystem().log,
            std::vector{"FanHelper: Fan lease expired — fail-safe restoring automatic"s});
  EXPECT_EQ(forced(), "");
  advance(3600s);
  EXPECT_EQ(happened(), "");
}

TEST_F(FanHelperServiceTest, CapEndsAPeriodHoweverOftenItIsRenewed) {
  start();
  for (int period = 0; period < 2; ++period) {
    for (int renewal = 0; renewal < 180; ++renewal) {
      EXPECT_EQ(write("F1Tg", 2500), "true");
      EXPECT_EQ(armedTimers(), 2U);
      happened();
      advance(10s - 1ns);
      EXPECT_EQ(forced(), "1");
      advance(1ns);
    }
    EXPECT_EQ(happened(),
              "F1Md=0 | max manual duration reached — fail-safe; restore → automatic (hard cap); "
              "fans=[1]");
    EXPECT_EQ(armedTimers(), 0U);
  }
  EXPECT_TRUE(fakeSystem().log.empty());
}

TEST_F(FanHelperServiceTest, ReleaseRenewsNothingAndTheLastOneEndsThePeriod) {
  start();
  write("F0Md", 1);
  write("F1Md", 1);
  advance(19s);
  write("F0Md", 0);
  EXPECT_EQ(armedTimers(), 2U);
  happened();
  advance(1s);
  EXPECT_EQ(happened(), "F1Md=0 | " + leaseRestore + "fans=[1]");

  write("F0Md", 1);
  write("F0Md", 0);
  EXPECT_EQ(armedTimers(), 0U);
  happened();
  advance(3600s);
  EXPECT_EQ(happened(), "");
}

// Whichever is first on the queue: a renewal discards the expired lease, an expired lease ends the
// period.
TEST_F(FanHelperServiceTest, RenewalAndExpiryInTheSameMoment) {
  start();
  std::string before, behind;
  write("F0Md", 1);
  happened();
  virtualdispatch::elapse(20s - 1ns);
  service->writeFanKey("F0Tg", 0, false, into(before));
  virtualdispatch::elapse(1ns);
  virtualdispatch::runUntilIdle();
  EXPECT_EQ(happened(), "F0Tg=0 | write F0Tg=0");

  virtualdispatch::elapse(20s);
  service->writeFanKey("F0Tg", 0, false, into(behind));
  virtualdispatch::runUntilIdle();
  EXPECT_EQ(happened(), "F0Md=0 F0Tg=0 | " + leaseRestore + "fans=[0]; write F0Tg=0");
  EXPECT_EQ(armedTimers(), 2U);
}

TEST_F(FanHelperServiceTest, PendingTimersKeepNoServiceAlive) {
  start();
  write("F0Md", 1);
  happened();
  const std::weak_ptr<FanHelperService> observer = service;
  service.reset();
  EXPECT_TRUE(observer.expired());
  advance(3600s);
  EXPECT_EQ(happened(), "");
}

TEST_F(FanHelperServiceTest, RestoreWritesExactlyTheForcedFansElseAllThatAreCounted) {
  start();
  write("F2Md", 1);
  write("F1Tg", 0);
  machine().failResults({"F1Md", writing}, 134);  // stops nothing, and is listed all the same
  happened();
  for (const char* expected : {"F1Md=0 F2Md=0 | restore → automatic (app requested); fans=[1, 2]",
                               "F0Md=0 F1Md=0 F2Md=0"}) {
    std::string answer;
    service->restoreAuto(into(answer));
    virtualdispatch::runUntilIdle();
    EXPECT_EQ(answer, "true");
    EXPECT_EQ(happened(), expected);
    EXPECT_EQ(armedTimers(), 0U);
  }
}

TEST_F(FanHelperServiceTest, AFanComesBeforeItsRecordAndTheRecordBeforeTheReply) {
  machine().beforeWrite = [this] {
    EXPECT_EQ(root.read(FanControlConstants::auditLogPath).size(), auditedSoFar);
  };
  start();
  write("F0Md", 1);
  happened();
  std::string seen;
  service->restoreAuto([&](bool, const std::optional<std::string>&) { seen = happened(); });
  virtualdispatch::runUntilIdle();
  EXPECT_EQ(seen, "F0Md=0 | restore → automatic (app requested); fans=[0]");
}

TEST_F(FanHelperServiceTest, ShutdownWaitsForWhatIsQueuedAndLetsNothingFollow) {
  start();
  std::string before, behind;
  service->writeFanKey("F2Md", 1, false, into(before));
  service->shutdownReleasing();
  service->writeFanKey("F1Md", 1, false, into(behind));
  advance(3600s);
  EXPECT_EQ(before, "true");
  EXPECT_EQ(behind, "");
  EXPECT_EQ(happened(), "F2Md=1 F2Md=0 | write F2Md=1; restore → automatic (shutdown); fans=[2]");
}

TEST_F(FanHelperServiceTest, StatusTellsSixThingsInOrderAndPingDoesNotWait) {
  start();
  for (const char* key : {"F2Md", "F0Md", "F1Tg"}) write(key, 1);
  machine().setFanCount(9);
  happened();
  EXPECT_EQ(status(), (StatusReport{{"version", "1.0.0"},
                                    {"model", "Mac14,2"},
                                    {"smcOpen", "1"},
                                    {"fanCount", "9"},
                                    {"forcedFans", "0,1,2"},
                                    {"leaseSeconds", "20"}}));
  EXPECT_EQ(happened(), "");
  std::string queued, answer;
  service->writeFanKey("F0Md", 1, false, into(queued));
  service->ping([&answer](std::string text) { answer = std::move(text); });
  EXPECT_EQ(answer + queued, "ok 1.0.0");
  virtualdispatch::runUntilIdle();
  EXPECT_EQ(queued, "true");
}

}  // namespace
}  // namespace quorvane
