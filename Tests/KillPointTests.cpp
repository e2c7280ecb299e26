// The daemon killed at every point of a session at which it has to do with the hardware, which
// keeps its state; the next one, the real one, has to put that right before it serves anybody.
#include <gtest/gtest.h>

#include <csignal>

#include "Support/SimulatedMac.h"

namespace quorvane {
namespace {

const std::string forceBoth = "smcsim set F0Md 01; smcsim set F1Md 01";

TEST(KillPoints, AfterACrashAnywhereAllFansAreAutomaticAtTheFirstReply) {
  const SimulatedMac mac;
  int point = 0, leftForced = 0;
  for (;; ++point) {
    mac.sh(forceBoth);  // as an earlier crash may have left it
    const auto doomed = mac.start("env KILL_POINT=" + std::to_string(point) + " UnluckyHelper");
    // Force by mode and target, renew, release, restore, and leave fans for the shutdown.
    mac.batch(
        "write\tF0Md\t1\nwrite\tF0Tg\t2500\tfloat\nwrite\tF1Md\t1\nwrite\tF1Tg\t2500\tfloat\n"
        "write\tF0Tg\t2600\tfloat\nwrite\tF0Md\t0\nauto\nwrite\tF0Md\t1\nwrite\tF1Md\t1\n");
    const int status = doomed->stop(SIGTERM);
    if (status == 0) break;
    ASSERT_EQ(status, 128 + SIGKILL) << point;
    if (mac.modes() != "00") ++leftForced;
    const auto next = mac.start();
    EXPECT_EQ(mac.modes(), "00") << point;
  }
  EXPECT_EQ(mac.modes(), "00");
  // Two for each call; the start has about seven, the requests eleven and the shutdown two.
  EXPECT_GT(point, 30);
  EXPECT_GT(leftForced, 20);
}

// To hold the hardware's file is to be a driver that does not answer.
TEST(KillPoints, NobodyIsServedBeforeTheFansAreAutomatic) {
  const SimulatedMac mac;
  mac.sh(forceBoth);
  std::optional<simulation::SMCFile> hardware(std::in_place);
  ASSERT_EQ(mac.take(*hardware), 0);
  const Process daemon("QuorvaneFanHelper");
  for (int i = 0; i < 30; ++i) EXPECT_EQ(mac.sh("fanctl ping").front(), '3');
  hardware.reset();
  while (mac.sh("fanctl ping").front() != '0') continue;
  EXPECT_EQ(mac.modes(), "00");
}

}  // namespace
}  // namespace quorvane
