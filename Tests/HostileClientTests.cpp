// Clients that mean ill or have bad luck, as processes against the real daemon: the unadmitted are
// not served, and the admitted delay nobody.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <thread>

#include "Support/Eventually.h"
#include "Support/Lingering.h"
#include "Support/RawChannel.h"
#include "Support/SimulatedMac.h"

namespace quorvane {
namespace {

const std::string expired = "lease expired — fail-safe\nrestore → automatic (lease expired); fans=";

/// As many as are let in of one user, the one that runs the tests.
const int everybody = geteuid() == 0 ? 32 : 8;

struct HostileClients : testing::Test {
  HostileClients() { mac.install("hostile"); }

  /// Lets a crowd force fan 0, in the place of the crowd that was there. How many were let in.
  int replaceCrowd() {
    crowd.reset();
    mac.root.write("/crowd", "");
    crowd = std::make_unique<Process>("hostile crowd >$QUORVANE_ROOT/crowd");
    while (mac.root.read("/crowd").empty() || mac.modes() != "10") std::this_thread::yield();
    return std::stoi(mac.root.read("/crowd"));
  }

  SimulatedMac mac;
  std::unique_ptr<Process> crowd;
};

TEST_F(HostileClients, FloodsDelayNoPingAndEndWithTheRestore) {
  int broken[2];
  ASSERT_EQ(pipe(broken), 0);
  close(broken[0]);
  const std::string intoBroken = "QuorvaneFanHelper 2>&" + std::to_string(broken[1]);
  const auto daemon = mac.start(intoBroken);
  const Process first("hostile flood"), second("hostile flood");
  mac.waitForWrites(100);
  EXPECT_EQ(Process("hostile ping").stop(0), 0) << "every ping is answered";
  EXPECT_EQ(mac.sh(intoBroken), "1:") << "a second daemon";
  EXPECT_EQ(daemon->stop(SIGTERM), 0);
  EXPECT_TRUE(mac.written().ends_with(" F0Md=00 "));
  EXPECT_TRUE(mac.audited().ends_with("restore → automatic (shutdown); fans=[0]\n"));
}

// Both fans are forced. Then one client is killed, another stops while it waits for replies, a
// third never reads any, a fourth has left what takes a minute to close, and the wall clock is set
// back. Twenty real seconds.
TEST_F(HostileClients, WhoeverFallsSilentLosesTheFansOnTime) {
  const auto daemon = mac.start("UnluckyHelper 2>$QUORVANE_ROOT/log");
  const Process mute("hostile mute"), stopped("hostile flood");
  Process dying("fanctl force 1 2500");
  mac.waitForWrites(200);
  while (mac.modes() != "11") std::this_thread::yield();
  EXPECT_EQ(Process("hostile linger").stop(0), 0);
  stopped.signal(SIGSTOP);
  dying.stop(SIGKILL);
  std::this_thread::sleep_for(std::chrono::seconds(1));  // all that was queued is done by then
  mac.root.write("/clock-set-back", "");
  EXPECT_NEAR(mac.secondsToRestore(), 20.75, 0.75);
  EXPECT_EQ(daemon->stop(SIGINT), 0);
  EXPECT_EQ(mac.modes(), "00");
  EXPECT_TRUE(mac.audited().ends_with(expired + "[0, 1]\n"));
  EXPECT_NE(
      mac.root.read("/log").find("FanHelper: Fan lease expired — fail-safe restoring automatic\n"),
      std::string::npos);
  const std::string log = mac.root.read("/Library/Application Support/Quorvane/fan-audit.log");
  EXPECT_LT(log.substr(log.rfind('\n', log.size() - 2) + 1, 20), log.substr(0, 20));
}

// Another twenty seconds. Forty descriptors are so few that a crowd could take them all.
TEST_F(HostileClients, CrowdsAreBoundedAndLeaveARestoreItsDescriptors) {
  auto daemon = mac.start();
  EXPECT_EQ(replaceCrowd(), everybody);
  const std::vector<test::RawChannel> strangers(200);
  for (const auto& each : strangers) EXPECT_TRUE(each.connect());
  for (const auto& each : strangers) EXPECT_FALSE(each.receive());
  EXPECT_EQ(daemon->stop(SIGTERM), 0);
  EXPECT_EQ(mac.modes(), "00");

  daemon = mac.start("prlimit --nofile=40 QuorvaneFanHelper");
  const Process alwaysEntering("hostile mute");
  EXPECT_LT(replaceCrowd(), everybody);
  EXPECT_NEAR(mac.secondsToRestore(), 20.75, 0.75);
  EXPECT_LT(replaceCrowd(), everybody) << "it serves again";
  EXPECT_EQ(daemon->stop(SIGTERM), 0);
  EXPECT_EQ(mac.modes(), "00");
  EXPECT_NE(mac.audited().find(expired + "[0]\nwrite F0Md=1\n"), std::string::npos);
  EXPECT_EQ(mac.audited().find("error"), std::string::npos);
}

// Four strangers of one user wait for admission, and the others are refused; in each connection
// lies what takes a minute to close.
TEST_F(HostileClients, NobodyWaitsForWhatStrangersLeaveBehind) {
  if (geteuid() != 0) GTEST_SKIP() << "takes another user";
  const auto daemon = mac.start("UnluckyHelper");
  int left = 0;  // an attempt can come behind the end
  for (const test::RawChannel& each : std::vector<test::RawChannel>(20)) {
    EXPECT_TRUE(each.connect(1));
    if (test::sendLingering(each.socket.get())) ++left;
  }
  EXPECT_GT(left, 0);
  EXPECT_EQ(mac.sh("timeout 5 fanctl ping"), "0:ok 1.0.0\n");
  EXPECT_EQ(mac.sh("timeout 5 fanctl auto"), "0:");
  EXPECT_EQ(daemon->stop(SIGTERM), 0);
}

// One that hangs, and says first which descriptors it has. Five real seconds.
TEST_F(HostileClients, AGatekeeperHasOnlyItsOwnAndEndsAtTheDeadline) {
  mac.root.write(
      "/bin/quorvane-codesign",
      "#!/bin/sh\necho $(ls /proc/self/fd) >$QUORVANE_ROOT/descriptors; exec sleep 60\n");
  mac.sh("cd $QUORVANE_ROOT; chmod +x bin/*; mkdir sbin; cp " PROGRAMS_FOLDER
         "/QuorvaneFanHelper sbin");
  Process daemon("$QUORVANE_ROOT/sbin/QuorvaneFanHelper");
  const std::string socket = mac.root.path("/run/quorvane/com.quorvane.fanhelper");
  ASSERT_TRUE(test::eventually([&] { return std::filesystem::is_socket(socket); }));
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(mac.sh("fanctl ping").front(), '3');
  const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
  EXPECT_NEAR(taken.count(), 6.5, 2) << "less than the time that fanctl waits";
  EXPECT_EQ(mac.root.read("/descriptors"), "0 1 2 3\n") << "3 is the folder that ls reads";
  EXPECT_EQ(daemon.stop(SIGTERM), 0);
}

// The driver does not answer, so that every request that may wait does.
TEST_F(HostileClients, WithEveryBoundFullTheGuardStaysSmall) {
  const auto daemon = mac.start();
  std::optional<simulation::SMCFile> hardware(std::in_place);
  ASSERT_EQ(mac.take(*hardware), 0);
  const Process filling("hostile fill >$QUORVANE_ROOT/crowd");
  ASSERT_TRUE(test::eventually([this] { return !mac.root.read("/crowd").empty(); }));
  EXPECT_EQ(std::stoi(mac.root.read("/crowd")), everybody);
  RecordProperty("kilobytes", std::to_string(daemon->peakMemory()));
  EXPECT_LT(daemon->peakMemory(), MEMORY_BOUND);
  hardware.reset();
  EXPECT_EQ(daemon->stop(SIGTERM), 0);
  EXPECT_EQ(mac.modes(), "00");
}

// fanctl under other signatures: each is cut off before any operation.
TEST_F(HostileClients, NobodyUnadmittedIsServed) {
  const auto daemon = mac.start();
  const std::filesystem::path other = mac.root.path("/bin/other");
  const auto trying = [&](const test::SigningIdentity& root, const char* team, const char* name) {
    mac.sh("cp $QUORVANE_ROOT/bin/fanctl $QUORVANE_ROOT/bin/other");
    root.issue({.units = std::string("/OU=") + team}).signExecutable(other, name);
    return mac.sh("other write F0Md 1").front();
  };
  EXPECT_EQ(trying(mac.trusted, "X4TQ8RW2ZN", "com.quorvane.app-vendra"), '0');
  EXPECT_EQ(trying(mac.trusted, "X4TQ8RW2ZM", "com.quorvane.app"), '3');
  EXPECT_EQ(trying(mac.trusted, "X4TQ8RW2ZN", "com.quorvane.apps"), '3');
  EXPECT_EQ(trying(test::SigningIdentity::makeRoot(), "X4TQ8RW2ZN", "com.quorvane.app"), '3');
  EXPECT_EQ(trying(mac.trusted, "X4TQ8RW2ZN", "com.quorvane.app"), '0');
  EXPECT_EQ(mac.sh("echo >>$QUORVANE_ROOT/bin/other; other write F0Md 1").front(), '3')
      << "tampered";
  EXPECT_EQ(mac.sh("rm $QUORVANE_ROOT/bin/other.codesign; other write F0Md 1").front(), '3')
      << "unsigned";
  EXPECT_NE(mac.sh("unshare -Ur fanctl write F0Md 1").front(), '0') << "another user namespace";
  EXPECT_TRUE(mac.audited().ends_with("fans=2\nwrite F0Md=1\nwrite F0Md=1\n"));
}

}  // namespace
}  // namespace quorvane
