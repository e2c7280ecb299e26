// Clients that mean ill or have bad luck, as processes against the real daemon: the unadmitted are
// not served, and the admitted delay nobody.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>

#include "Support/Await.h"
#include "Support/Lingering.h"
#include "Support/RawChannel.h"
#include "Support/SimulatedMac.h"

namespace quorvane {
namespace {

/// As many as are let in of one user, the one that runs the tests.
const int everybody = geteuid() == 0 ? 32 : 8;

struct HostileClients : testing::Test {
  HostileClients() { mac.install("hostile"); }

  /// Sends a crowd in the place of the one before. How many are let in, each of which forces fan 0.
  int replaceCrowd() {
    crowd.reset();
    mac.root.write("/crowd", "");
    crowd = std::make_unique<Process>("hostile crowd >$QUORVANE_ROOT/crowd");
    test::await("crowd", [this] { return !mac.root.read("/crowd").empty(); });
    return std::stoi(mac.root.read("/crowd"));
  }
  void expectRestoreBySIGTERM(Process& daemon) const {
    EXPECT_EQ(daemon.stop(SIGTERM), 0);
    EXPECT_EQ(mac.modes(), "00");
    EXPECT_TRUE(mac.audited().ends_with("restore → automatic (shutdown); fans=[0]\n"));
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
  mac.awaitWrites(100);
  std::string pings, answers;
  for (int i = 0; i < 300; ++i) {
    pings += "ping\n";
    answers += "ok 1.0.0\n";
  }
  EXPECT_EQ(mac.batch(pings), answers);
  EXPECT_EQ(mac.sh(intoBroken), "1:") << "a second daemon";
  expectRestoreBySIGTERM(*daemon);
}

// Both fans are forced. One client is killed then. Another stops while it waits for replies. A
// third leaves behind what takes a minute to close. The wall clock is set back. Twenty real
// seconds.
TEST_F(HostileClients, WhoeverFallsSilentLosesTheFansOnTime) {
  const auto daemon = mac.start("UnluckyHelper 2>$QUORVANE_ROOT/log");
  const Process stopped("hostile flood");
  Process dying("fanctl force 1 2500");
  mac.awaitWrites(200);
  test::await("forced fans", [this] { return mac.modes() == "11"; });
  EXPECT_EQ(Process("hostile linger").stop(0), 0);
  stopped.signal(SIGSTOP);
  dying.stop(SIGKILL);
  EXPECT_EQ(mac.sh("fanctl status").front(), '0') << "comes behind all that is queued";
  mac.root.write("/clock-set-back", "");
  EXPECT_NEAR(mac.secondsToRestore(), 20.75, 0.75);
  EXPECT_EQ(daemon->stop(SIGINT), 0);
  EXPECT_EQ(mac.modes(), "00");
  EXPECT_TRUE(mac.audited().ends_with(
      "lease expired — fail-safe\nrestore → automatic (lease expired); fans=[0, 1]\n"));
  EXPECT_NE(mac.root.read("/log").find("Fan lease expired — fail-safe restoring automatic\n"),
            std::string::npos);
}

TEST_F(HostileClients, CrowdsAreBoundedAndLeaveARestoreItsDescriptors) {
  auto daemon = mac.start();
  EXPECT_EQ(replaceCrowd(), everybody);
  const std::vector<test::RawChannel> strangers(200);
  for (const auto& each : strangers) EXPECT_TRUE(each.connect());
  for (const auto& each : strangers) EXPECT_FALSE(each.receive());
  expectRestoreBySIGTERM(*daemon);

  // So few descriptors that a crowd could take them all.
  daemon = mac.start("prlimit --nofile=40 QuorvaneFanHelper");
  EXPECT_LT(replaceCrowd(), everybody);
  EXPECT_LT(replaceCrowd(), everybody) << "it serves again";
  expectRestoreBySIGTERM(*daemon);
  EXPECT_EQ(mac.audited().find("write error"), std::string::npos);
}

// Four strangers of one user wait for admission, and the others are refused; in each connection
// lies what takes a minute to close.
TEST_F(HostileClients, NobodyWaitsForWhatStrangersLeaveBehind) {
  if (geteuid() != 0) GTEST_SKIP() << "takes another user";
  const auto daemon = mac.start("UnluckyHelper");
  int left = 0;  // some attempts come too late
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
  test::await("socket", [&] { return std::filesystem::is_socket(socket); });
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(mac.sh("fanctl ping").front(), '3');
  const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
  EXPECT_NEAR(taken.count(), 6.5, 2) << "less than the time that fanctl waits";
  EXPECT_EQ(mac.root.read("/descriptors"), "0 1 2 3\n") << "3 is the folder that ls reads";
  EXPECT_EQ(daemon.stop(SIGTERM), 0);
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
