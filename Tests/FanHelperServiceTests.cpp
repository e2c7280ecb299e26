#include "QuorvaneFanHelper/FanHelperService.h"

#include <gtest/gtest.h>

#include <chrono>
#include <iomanip>
#include <sstream>

#include "Support/FakeSystem.h"
#include "Support/ScriptedSMC.h"
#include "Support/TemporaryRoot.h"
#include "Support/VirtualDispatch.h"

namespace quorvane {
namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

/// What an operation answered: "true", "false: <message>", or "no reply".
using Answer = std::string;

constexpr auto writes = ScriptedSMC::Operation::write;

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
    machine().takeCalls();
    auditedSoFar = root.read(FanControlConstants::auditLogPath).size();
  }

  FanControlXPC::OutcomeReply into(Answer& answer) {
    return [&answer](bool success, std::optional<std::string> message) {
      EXPECT_EQ(answer, "no reply") << "answered twice";
      EXPECT_EQ(success, !message);
      answer = success ? "true" : "false: " + message.value_or("");
    };
  }
  Answer write(const std::string& key, std::int64_t value, bool isFloat = false) {
    Answer answer = "no reply";
    service->writeFanKey(key, value, isFloat, into(answer));
    virtualdispatch::runUntilIdle();
    return answer;
  }
  Answer restoreAuto() {
    Answer answer = "no reply";
    service->restoreAuto(into(answer));
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

  /// The messages appended to the audit log since the last look, without their timestamps.
  Lines audited() {
    const std::string log = root.read(FanControlConstants::auditLogPath);
    std::istringstream fresh(log.substr(auditedSoFar));
    auditedSoFar = log.size();
    Lines messages;
    for (std::string line; std::getline(fresh, line);) messages.push_back(line.substr(22));
    return messages;
  }

  /// The writes that reached the SMC since the last look, each as "F0Md=01", in order.
  Lines written() {
    Lines lines;
    for (const auto& call : machine().takeCalls()) {
      if (call.operation != ScriptedSMC::Operation::write) continue;
      std::ostringstream line;
      line << call.key << "=" << std::hex << std::setfill('0');
      const unsigned size = call.request[28];
      for (unsigned i = 0; i < size; ++i) line << std::setw(2) << unsigned{call.request[48 + i]};
      lines.push_back(line.str());
    }
    return lines;
  }

  TemporaryRoot root;
  std::shared_ptr<FanHelperService> service;
  std::size_t auditedSoFar = 0;
};

constexpr char failSafe[] = "lease expired — fail-safe";
constexpr char capReached[] = "max manual duration reached — fail-safe";
const FakeSystem::Message leaseMessage{false, "FanHelper",
                                       "Fan lease expired — fail-safe restoring automatic"};

std::string restoreLine(const std::string& reason, const std::string& fans) {
  return "restore → automatic (" + reason + "); fans=[" + fans + "]";
}

TEST_F(FanHelperServiceTest, StartupPutsEveryCountedFanIntoAutomatic) {
  machine().addKey("F1Md", "ui8 ", 1, 0xC0, {1});  // left over from a crash
  EXPECT_TRUE(machine().takeCalls().empty()) << "construction touches no SMC";
  service->startup();
  EXPECT_EQ(written(), (Lines{"F0Md=00", "F1Md=00", "F2Md=00"}));
  EXPECT_EQ(audited(), (Lines{"helper 1.0.0 started; model=Mac14,2 fans=3"}));
  EXPECT_TRUE(fakeSystem().log.empty());
}

TEST_F(FanHelperServiceTest, StartupWithoutUsableFanCountResetsTheFirstFan) {
  struct Row {
    const char* what;
    std::optional<std::vector<std::uint8_t>> count;
  };
  for (const Row& row : {Row{"zero", {{0}}}, Row{"empty", {{}}}, Row{"no such key", {}}}) {
    machine().removeKey("FNum");
    if (row.count)
      machine().addKey("FNum", "ui8 ", static_cast<std::uint32_t>(row.count->size()), 0xC0,
                       *row.count);
    service = std::make_shared<FanHelperService>();
    service->startup();
    EXPECT_EQ(written(), (Lines{"F0Md=00"})) << row.what;
    EXPECT_EQ(audited(), (Lines{"helper 1.0.0 started; model=Mac14,2 fans=0"})) << row.what;
  }
}

TEST_F(FanHelperServiceTest, WithoutAnSMCItServesOnAndRefusesWrites) {
  machine().serviceNames.clear();
  service->startup();
  EXPECT_EQ(audited(), (Lines{"helper 1.0.0 started; model=Mac14,2 fans=0"}));
  EXPECT_EQ(fakeSystem().log,
            (std::vector<FakeSystem::Message>{{true, "FanHelper", "SMC open failed: notOpen"}}));
  EXPECT_EQ(write("FNum", 1), "false: SMC not open");
  EXPECT_EQ(write("F0Md", 1), "false: SMC not open");
  EXPECT_EQ(restoreAuto(), "true");
  EXPECT_EQ(status().at(2).second, "0");
  EXPECT_EQ(status().at(3).second, "0");
  service->shutdownReleasing();
  EXPECT_EQ(audited(), Lines{});
  EXPECT_TRUE(machine().takeCalls().empty());
}

TEST_F(FanHelperServiceTest, ModelIsReadOnce) {
  fakeSystem().model =
      "Mac\xFF"
      "1";  // neither a NUL nor valid UTF-8
  service->startup();
  EXPECT_EQ(status().at(1).second, "Mac\uFFFD1");
  fakeSystem().model = std::string("other\0", 6);
  EXPECT_EQ(status().at(1).second, "Mac\uFFFD1");
  EXPECT_EQ(fakeSystem().modelReads, 1);
}

TEST_F(FanHelperServiceTest, ModelIsUnknownWithoutAValue) {
  fakeSystem().model = std::nullopt;
  EXPECT_EQ(FanHelperService::model(), "Unknown");
}

TEST_F(FanHelperServiceTest, ModelEndsAtTheFirstNUL) {
  fakeSystem().model = std::string("\0junk", 5);
  EXPECT_EQ(FanHelperService::model(), "");
}

TEST_F(FanHelperServiceTest, EveryOutcomeOfAWrite) {
  start();
  struct Row {
    std::string key;
    std::int64_t value;
    bool isFloat;
    Answer answer;
    Lines audit, writes;
    std::string forced;
  };
  const std::string accented = "F0Md\u0301";
  const auto refusal = [](const std::string& key) {
    return Row{key,
               1,
               false,
               "false: Refused: " + key + " is not a fan-control key",
               {"REJECTED non-fan key " + key},
               {},
               "0,1"};
  };
  const Row rows[] = {
      {"F0Tg", 12000, true, "true", {"write F0Tg=12000"}, {"F0Tg=bb80"}, "0"},
      {"F0Tg", 0, false, "true", {"write F0Tg=0"}, {"F0Tg=0000"}, "0"},
      {"F1Md", 1, false, "true", {"write F1Md=1"}, {"F1Md=01"}, "0,1"},
      {"F2Md", 0, false, "true", {"write F2Md=0"}, {"F2Md=00"}, "0,1"},
      {"F0Tg", 12001, false, "false: RPM out of range", {}, {}, "0,1"},
      {"F0Tg", -1, false, "false: RPM out of range", {}, {}, "0,1"},
      {"F0Tg", INT64_MAX, false, "false: RPM out of range", {}, {}, "0,1"},
      {"F0Md", 1, true, "false: Bad mode value", {}, {}, "0,1"},
      {"F0Md", 0, true, "false: Bad mode value", {}, {}, "0,1"},
      {"F0Md", 2, false, "false: Bad mode value", {}, {}, "0,1"},
      {"F0Md", -1, false, "false: Bad mode value", {}, {}, "0,1"},
      {"F0Md", 256, false, "false: Bad mode value", {}, {}, "0,1"},
      refusal(""),
      refusal("FNum"),
      refusal("F+Md"),
      refusal("F-Tg"),
      refusal("FAMd"),
      refusal("F Md"),
      refusal("F0Tx"),
      refusal("F0Ac"),
      refusal("f0Md"),
      refusal("F0md"),
      refusal("F10Tg"),
      refusal("F0M"),
      refusal("F0Md "),
      refusal("F:Md"),
      refusal("F/Md"),
      refusal("F\u0660Md"),
      refusal(accented),
  };
  for (const Row& row : rows) {
    EXPECT_EQ(write(row.key, row.value, row.isFloat), row.answer) << row.key << "=" << row.value;
    EXPECT_EQ(written(), row.writes) << row.key << "=" << row.value;
    EXPECT_EQ(audited(), row.audit) << row.key << "=" << row.value;
    EXPECT_EQ(forced(), row.forced) << row.key << "=" << row.value;
    machine().takeCalls();
    audited();
  }
}

TEST_F(FanHelperServiceTest, AllTwentyKeysCanBeWritten) {
  for (int fan = 3; fan < 10; ++fan) machine().addFan(fan, "flt ");
  start();
  for (int fan = 9; fan >= 0; --fan) {
    EXPECT_EQ(write("F" + std::to_string(fan) + "Md", 1), "true");
    EXPECT_EQ(write("F" + std::to_string(fan) + "Tg", 2500), "true");
  }
  EXPECT_EQ(machine().value("F9Tg"), (std::vector<std::uint8_t>{0x00, 0x40, 0x1C, 0x45}));
  EXPECT_EQ(forced(), "0,1,2,3,4,5,6,7,8,9");
}

TEST_F(FanHelperServiceTest, FailedWriteHandsEveryFanBack) {
  start();
  struct Row {
    const char* what;
    std::function<void()> breakIt;
    Answer answer;
  };
  const Row rows[] = {
      {"driver",
       [] {
         machine().failCalls({"F2Tg", writes}, kIOReturnBadArgument);
       },
       "false: callFailed(-536870206)"},
      {"SMC",
       [] {
         machine().failResults({"F2Tg", writes}, 132);
       },
       "false: resultError(132)"},
      {"key", [] { machine().removeKey("F7Tg"); }, "false: keyMissing"},
  };
  for (const Row& row : rows) {
    write("F1Md", 1);
    write("F0Tg", 3000);
    audited();
    written();
    row.breakIt();
    EXPECT_EQ(write(row.what == std::string("key") ? "F7Tg" : "F2Tg", 2000), row.answer);
    EXPECT_EQ(audited(), (Lines{restoreLine("write error", "0, 1")})) << row.what;
    EXPECT_EQ(machine().value("F1Md"), (std::vector<std::uint8_t>{0})) << row.what;
    EXPECT_EQ(forced(), "") << row.what;
    EXPECT_EQ(virtualdispatch::armedTimers(), 0U) << row.what;
    machine().heal();
  }
}

TEST_F(FanHelperServiceTest, LeaseRunsOutTwentySecondsAfterTheLastForcingWrite) {
  start();
  write("F0Md", 1);
  virtualdispatch::advance(19s);
  write("F0Tg", 2500);
  virtualdispatch::advance(15s);
  // None of these renews.
  status();
  service->ping([](const std::string&) {});
  write("F1Tg", -1);
  write("nope", 1);
  write("F2Md", 0);
  virtualdispatch::advance(5s - 1ns);
  EXPECT_EQ(forced(), "0");
  audited();
  written();
  virtualdispatch::advance(1ns);
  EXPECT_EQ(fakeSystem().log, (std::vector<FakeSystem::Message>{leaseMessage}));
  EXPECT_EQ(audited(), (Lines{failSafe, restoreLine("lease expired", "0")}));
  EXPECT_EQ(written(), (Lines{"F0Md=00"}));
  EXPECT_EQ(forced(), "");
  virtualdispatch::advance(3600s);
  EXPECT_EQ(audited(), Lines{});
}

TEST_F(FanHelperServiceTest, CapEndsAPeriodHoweverOftenItIsRenewed) {
  start();
  for (int period = 0; period < 2; ++period) {
    for (int renewal = 0; renewal < 180; ++renewal) {
      EXPECT_EQ(write("F1Tg", 2500), "true");
      EXPECT_EQ(virtualdispatch::armedTimers(), 2U);
      if (renewal == 179) {
        write("F0Md", 1);
        audited();
        virtualdispatch::advance(10s - 1ns);
        EXPECT_EQ(forced(), "0,1");
        virtualdispatch::advance(1ns);
      } else {
        virtualdispatch::advance(10s);
      }
    }
    EXPECT_EQ(audited(), (Lines{capReached, restoreLine("hard cap", "0, 1")}));
    EXPECT_EQ(forced(), "");
    EXPECT_EQ(virtualdispatch::armedTimers(), 0U);
  }
  EXPECT_TRUE(fakeSystem().log.empty());
}

TEST_F(FanHelperServiceTest, ReleaseRenewsNothingAndTheLastOneEndsThePeriod) {
  start();
  write("F0Md", 1);
  write("F1Md", 1);
  virtualdispatch::advance(19s);
  write("F0Md", 0);
  EXPECT_EQ(virtualdispatch::armedTimers(), 2U);
  audited();
  virtualdispatch::advance(1s);
  EXPECT_EQ(audited(), (Lines{failSafe, restoreLine("lease expired", "1")}));

  write("F0Md", 1);
  write("F0Md", 0);
  EXPECT_EQ(virtualdispatch::armedTimers(), 0U);
  audited();
  virtualdispatch::advance(3600s);
  EXPECT_EQ(audited(), Lines{});
}

TEST_F(FanHelperServiceTest, RenewalQueuedBeforeTheDeadlineDiscardsTheExpiredLease) {
  start();
  write("F0Md", 1);
  audited();
  Answer answer = "no reply";
  virtualdispatch::elapse(20s - 1ns);
  service->writeFanKey("F0Tg", 2500, false, into(answer));
  virtualdispatch::elapse(1ns);
  virtualdispatch::runUntilIdle();
  EXPECT_EQ(audited(), (Lines{"write F0Tg=2500"}));
  virtualdispatch::advance(20s - 1ns);
  EXPECT_EQ(forced(), "0");
}

TEST_F(FanHelperServiceTest, RenewalQueuedBehindTheDeadlineOpensANewPeriod) {
  start();
  write("F0Md", 1);
  audited();
  Answer answer = "no reply";
  virtualdispatch::elapse(20s);
  service->writeFanKey("F0Tg", 2500, false, into(answer));
  virtualdispatch::runUntilIdle();
  EXPECT_EQ(audited(), (Lines{failSafe, restoreLine("lease expired", "0"), "write F0Tg=2500"}));
  EXPECT_EQ(virtualdispatch::armedTimers(), 2U);
}

TEST_F(FanHelperServiceTest, PendingTimersKeepNoServiceAlive) {
  start();
  write("F0Md", 1);
  written();
  const std::weak_ptr<FanHelperService> observer = service;
  service.reset();
  EXPECT_TRUE(observer.expired());
  virtualdispatch::advance(3600s);
  EXPECT_EQ(written(), Lines{});
}

TEST_F(FanHelperServiceTest, RestoreWritesExactlyTheForcedFansElseAllThatAreCounted) {
  start();
  write("F1Tg", 2500);
  written();
  audited();
  EXPECT_EQ(restoreAuto(), "true");
  EXPECT_EQ(written(), (Lines{"F1Md=00"}));
  EXPECT_EQ(audited(), (Lines{restoreLine("app requested", "1")}));
  EXPECT_EQ(virtualdispatch::armedTimers(), 0U);

  EXPECT_EQ(restoreAuto(), "true");
  EXPECT_EQ(written(), (Lines{"F0Md=00", "F1Md=00", "F2Md=00"}));
  EXPECT_EQ(audited(), Lines{});
}

TEST_F(FanHelperServiceTest, RestoreGoesOnAfterAModeThatCannotBeWritten) {
  start();
  write("F2Md", 1);
  write("F0Md", 1);
  machine().failResults({"F0Md", writes}, 134);
  written();
  audited();
  EXPECT_EQ(restoreAuto(), "true");
  EXPECT_EQ(written(), (Lines{"F0Md=00", "F2Md=00"}));
  EXPECT_EQ(machine().value("F2Md"), (std::vector<std::uint8_t>{0}));
  EXPECT_EQ(audited(), (Lines{restoreLine("app requested", "0, 2")}));
  EXPECT_EQ(forced(), "");
}

TEST_F(FanHelperServiceTest, ShutdownWaitsForWhatIsQueuedAndLetsNothingFollow) {
  start();
  Answer before = "no reply";
  Answer behind = "no reply";
  service->writeFanKey("F2Md", 1, false, into(before));
  service->shutdownReleasing();
  service->writeFanKey("F1Md", 1, false, into(behind));
  virtualdispatch::advance(3600s);
  EXPECT_EQ(before, "true");
  EXPECT_EQ(behind, "no reply");
  EXPECT_EQ(written(), (Lines{"F2Md=01", "F2Md=00"}));
  EXPECT_EQ(audited(), (Lines{"write F2Md=1", restoreLine("shutdown", "2")}));
}

TEST_F(FanHelperServiceTest, StatusTellsSixThingsInOrder) {
  start();
  for (const char* key : {"F2Md", "F0Md", "F1Tg"}) write(key, 1);
  machine().setFanCount(9);
  audited();
  written();
  EXPECT_EQ(status(), (StatusReport{{"version", "1.0.0"},
                                    {"model", "Mac14,2"},
                                    {"smcOpen", "1"},
                                    {"fanCount", "9"},
                                    {"forcedFans", "0,1,2"},
                                    {"leaseSeconds", "20"}}));
  EXPECT_EQ(written(), Lines{});
  EXPECT_EQ(audited(), Lines{});
}

TEST_F(FanHelperServiceTest, PingAnswersWhileTheQueueIsBusy) {
  start();
  Answer queued = "no reply";
  service->writeFanKey("F0Md", 1, false, into(queued));
  std::string answer;
  service->ping([&answer](std::string text) { answer = std::move(text); });
  EXPECT_EQ(answer, "ok 1.0.0");
  EXPECT_EQ(queued, "no reply");
  virtualdispatch::runUntilIdle();
  EXPECT_EQ(queued, "true");
}

}  // namespace
}  // namespace quorvane
