// Clients that mean ill or have bad luck, against the real daemon: it serves nobody that is not
// admitted, and no client delays another one, a lease or a restore.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>

#include "Platform/Linux/Channel/Connection.h"
#include "Support/Await.h"
#include "Support/Lingering.h"
#include "Support/RawChannel.h"
#include "Support/SimulatedMac.h"

namespace quorvane {

using test::RawChannel;

/// The most connections that the user of this test may have.
const std::size_t everybody = geteuid() == 0 ? 32 : 8;

std::string write(const std::string& key, std::int64_t value) {
  return xpc::encodeRequest(1, xpc::WriteFanKeyRequest{key, value, false});
}

const std::string force = write("F0Md", 1);

/// Forces fan 0, and then sends this request until as many wait for a reply as may.
void fill(const RawChannel& channel, const std::string& request) {
  channel.send(force);
  for (int i = 1; i < xpc::maxOutstandingReplies; ++i) channel.send(request);
}

/// Forces fan 0 as often as it can until it is cut off.
void flood() {
  const RawChannel channel;
  if (!channel.enter()) return;
  fill(channel, force);
  while (channel.receive()) channel.send(force);
}

/// Enters as often as it is let in, and fills each connection.
std::vector<RawChannel> enterAsCrowd(const std::string& request) {
  std::vector<RawChannel> crowd;
  test::await("place", [&crowd] {
    crowd = std::vector<RawChannel>(200);
    std::erase_if(crowd, [](const RawChannel& each) { return !each.enter(); });
    return !crowd.empty();
  });
  for (const RawChannel& each : crowd) fill(each, request);
  return crowd;
}

struct HostileClients : testing::Test {
  /// The command that starts the daemon with this script as its gatekeeper. The empty script admits
  /// everybody, so also the connections of this test.
  std::string guardedBy(const std::string& script, const std::string& daemon) const {
    mac.root.write("/bin/quorvane-codesign", "#!/bin/sh\n" + script);
    const std::string copy = mac.root.prepare("/sbin/" + daemon);
    mac.sh("chmod +x $QUORVANE_ROOT/bin/*; cp " PROGRAMS_FOLDER "/" + daemon + " " + copy);
    return copy;
  }
  void expectRestoreBySIGTERM(Process& daemon) const {
    EXPECT_EQ(daemon.stop(SIGTERM), 0);
    EXPECT_EQ(mac.modes(), "00");
    EXPECT_TRUE(mac.audited().ends_with("restore → automatic (shutdown); fans=[0]\n"));
  }

  SimulatedMac mac;
};

TEST_F(HostileClients, FloodsDelayNoPingAndEndWithTheRestore) {
  int broken[2];
  ASSERT_EQ(pipe(broken), 0);
  close(broken[0]);
  const std::string intoBroken =
      guardedBy("", "QuorvaneFanHelper") + " 2>&" + std::to_string(broken[1]);
  const auto daemon = mac.start(intoBroken);
  const Process first(flood), second(flood);
  mac.awaitWrites(100);
  const RawChannel patient;
  ASSERT_TRUE(patient.enter());
  for (int i = 0; i < 300; ++i) ASSERT_TRUE(patient.ping());
  EXPECT_EQ(mac.sh(intoBroken), "1:") << "a second daemon";
  expectRestoreBySIGTERM(*daemon);
}

// Both fans are forced. One client is killed then. Another stops while it waits for replies. A
// third leaves behind what takes a minute to close. The wall clock is set back. Twenty real
// seconds.
TEST_F(HostileClients, WhoeverFallsSilentLosesTheFansOnTime) {
  const auto daemon = mac.start(guardedBy("", "UnluckyHelper") + " 2>$QUORVANE_ROOT/log");
  const Process stopped(flood);
  Process dying("fanctl force 1 2500");
  mac.awaitWrites(200);
  test::await("forced fans", [this] { return mac.modes() == "11"; });
  {
    const RawChannel left;
    ASSERT_TRUE(left.enter());
    fill(left, write("F0Tg", 0));
    EXPECT_TRUE(test::sendLingering(left.socket.get()));
  }
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
  const std::string helper = guardedBy("", "QuorvaneFanHelper");
  auto daemon = mac.start(helper);
  std::vector<RawChannel> crowd = enterAsCrowd(force);
  EXPECT_EQ(crowd.size(), everybody);
  expectRestoreBySIGTERM(*daemon);

  // So few descriptors that a crowd could take them all.
  daemon = mac.start("prlimit --nofile=40 " + helper);
  for (const char* crowdNumber : {"first", "second"}) {
    crowd.clear();
    crowd = enterAsCrowd(force);
    EXPECT_LT(crowd.size(), everybody) << crowdNumber;
  }
  expectRestoreBySIGTERM(*daemon);
  EXPECT_EQ(mac.audited().find("write error"), std::string::npos);
}

// Four strangers of one user wait for admission, and the others are refused; in each connection
// lies what takes a minute to close.
TEST_F(HostileClients, NobodyWaitsForWhatStrangersLeaveBehind) {
  if (geteuid() != 0) GTEST_SKIP() << "takes another user";
  const auto daemon = mac.start("UnluckyHelper");
  int left = 0;  // some attempts come too late
  for (const RawChannel& each : std::vector<RawChannel>(20)) {
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
  Process daemon(guardedBy("echo $(ls /proc/self/fd) >$QUORVANE_ROOT/descriptors; exec sleep 60",
                           "QuorvaneFanHelper"));
  const std::string socket = mac.root.path("/run/quorvane/com.quorvane.fanhelper");
  test::await("socket", [&] { return std::filesystem::is_socket(socket); });
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(mac.sh("fanctl ping").front(), '3');
  const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
  EXPECT_NEAR(taken.count(), 6.5, 2) << "less than the time that fanctl waits";
  EXPECT_EQ(mac.root.read("/descriptors"), "0 1 2 3\n") << "3 is the folder that ls reads";
  EXPECT_EQ(daemon.stop(SIGTERM), 0);
}

// The driver does not answer the first request, so all others wait.
TEST_F(HostileClients, WithEveryBoundFullTheGuardStaysSmall) {
  const auto daemon = mac.start(guardedBy("", "QuorvaneFanHelper"));
  std::optional<simulation::SMCFile> hardware(std::in_place);
  ASSERT_EQ(mac.take(*hardware), 0);
  const std::string longestKey(xpc::maxRequestSize - write("", 0).size(), 'k');
  const std::vector<RawChannel> crowd = enterAsCrowd(write(longestKey, 0));
  EXPECT_EQ(crowd.size(), everybody);
  for (const RawChannel& each : crowd) EXPECT_TRUE(each.ping()) << "its requests are read";
  const std::string status = "/proc/" + std::to_string(daemon->id()) + "/status";
  const std::string kilobytes = test::shell("awk '/VmHWM/ { print $2 }' " + status);
  RecordProperty("kilobytes", kilobytes);
  EXPECT_LT(std::stol(kilobytes), MEMORY_BOUND);
  hardware.reset();
  expectRestoreBySIGTERM(*daemon);
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

}  // namespace quorvane
