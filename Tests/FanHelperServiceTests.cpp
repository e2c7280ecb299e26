// What the simulation cannot tell of the service: its model text, which is read once in a process,
// and when the service and its timers go.
#include "QuorvaneFanHelper/FanHelperService.h"

#include <gtest/gtest.h>

#include <chrono>

#include "Support/FakeSystem.h"
#include "Support/ScriptedSMC.h"
#include "Support/TemporaryRoot.h"
#include "Support/VirtualDispatch.h"

namespace quorvane {
namespace {

using namespace std::literals;

class FanHelperServiceTest : public testing::Test {
 protected:
  FanHelperServiceTest() {
    machine().reset();
    fakeSystem() = {};
    virtualdispatch::reset();
    machine().setFanCount(1);
    machine().addKey("F0Md", "ui8 ", 1, 0xC0);
    service = std::make_shared<FanHelperService>();
  }

  TemporaryRoot root;
  std::shared_ptr<FanHelperService> service;
};

TEST_F(FanHelperServiceTest, ModelIsReadOnceAndMadeValid) {
  fakeSystem().model = "Mac\xFF";  // neither valid UTF-8 nor ended by a NUL
  service->startup();
  fakeSystem().model = std::nullopt;
  std::string model;
  service->status([&model](const StatusReport& report) { model = report.at(1).second; });
  virtualdispatch::runUntilIdle();
  EXPECT_EQ(model, "Mac\uFFFD");
}

TEST_F(FanHelperServiceTest, ModelIsUnknownWithoutAValue) {
  fakeSystem().model = std::nullopt;
  EXPECT_EQ(FanHelperService::model(), "Unknown");
}

TEST_F(FanHelperServiceTest, PendingTimersKeepNoServiceAliveAndDoNothingWithoutIt) {
  EXPECT_TRUE(machine().takeCalls().empty()) << "construction touches no SMC";
  service->startup();
  service->writeFanKey("F0Md", 1, false, [](bool success, const auto&) { EXPECT_TRUE(success); });
  virtualdispatch::runUntilIdle();
  EXPECT_EQ(virtualdispatch::deadlines().size(), 2U);
  const std::string audited = root.read(FanControlConstants::auditLogPath);
  machine().takeCalls();
  const std::weak_ptr<FanHelperService> observer = service;
  service.reset();
  EXPECT_TRUE(observer.expired());
  virtualdispatch::advance(3600s);
  EXPECT_TRUE(machine().takeCalls().empty());
  EXPECT_EQ(root.read(FanControlConstants::auditLogPath), audited);
}

}  // namespace
}  // namespace quorvane
