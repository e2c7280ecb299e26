// Malicious and unlucky clients against the real daemon: it serves admitted clients only, and no
// client delays another one, a lease or a restore.
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cstring>

#include "Platform/Linux/Channel/Connection.h"
#include "Support/RawChannel.h"
#include "Support/SimulatedMac.h"

namespace quorvane {

using test::RawChannel;

/// The limit of connections for the user of this test.
const std::size_t everybody = geteuid() == 0 ? 32 : 8;

const std::string force = test::writeRequest("F0Md", 1);

/// Forces fan 0, then sends `request`, maxOutstandingReplies requests in all.
void fill(const RawChannel& channel, const std::string& request) {
  channel.send(force);
  for (int i = 1; i < xpc::maxOutstandingReplies; ++i) channel.send(request);
}

/// Forces fan 0 without a pause until it is cut off.
void flood() {
  const RawChannel channel;
  if (!channel.enter()) return;
  fill(channel, force);
  while (channel.receive()) channel.send(force);
}

/// Opens connections, up to the daemon's limits, and fills each. Waits for the first place.
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

/// Sends the helper descriptors that take a minute to close: a TCP connection whose close waits for
/// a reader (SO_LINGER, socket(7)), and its listening socket. Connects the channel first if a user
/// is given. Returns false if cut off.
bool leaveBehind(const RawChannel& channel, std::optional<uid_t> user = {}) {
  // In this order: if the message is not sent, closing `listening` resets the connection first.
  const Descriptor sending(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const Descriptor listening(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  auto* const name = reinterpret_cast<sockaddr*>(&address);
  socklen_t size = sizeof address;
  listen(listening.get(), 1);  // at a port chosen by the kernel, see ip(7)
  getsockname(listening.get(), name, &size);
  EXPECT_EQ(connect(sending.get(), name, size), 0);
  std::string block(65536, 'x');
  while (send(sending.get(), block.data(), block.size(), MSG_DONTWAIT) > 0) continue;
  const linger aMinute{1, 60};
  setsockopt(sending.get(), SOL_SOCKET, SO_LINGER, &aMinute, sizeof aMinute);

  const int both[] = {sending.get(), listening.get()};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof both)] = {};
  iovec data{block.data(), 1};
  const msghdr message{nullptr, 0, &data, 1, control, sizeof control, 0};
  *CMSG_FIRSTHDR(&message) = {CMSG_LEN(sizeof both), SOL_SOCKET, SCM_RIGHTS};
  std::memcpy(CMSG_DATA(CMSG_FIRSTHDR(&message)), both, sizeof both);
  if (user && !channel.connect(*user)) return false;
  return sendmsg(channel.socket.get(), &message, MSG_NOSIGNAL) == 1;
}

struct HostileClients : testing::Test {
  /// Returns a command that starts the daemon with `script` as its gatekeeper. The empty script
  /// admits everybody, including the connections of this test.
  std::string guardedBy(const std::string& script) const {
    mac.root.write("/bin/quorvane-codesign", "#!/bin/sh\n" + script);
    const std::string daemon = mac.root.prepare("/sbin/QuorvaneFanHelper");
    mac.sh("chmod +x $QUORVANE_ROOT/bin/*; cp " PROGRAMS_FOLDER "/UnluckyHelper " + daemon);
    return daemon;
  }
  void expectRestoreBySIGTERM(Process& daemon) const {
    EXPECT_EQ(daemon.stop(SIGTERM), 0);
    EXPECT_EQ(mac.modes(), "00");
    EXPECT_TRUE(mac.audited().ends_with("restore → automatic (shutdown); fans=[0]\n"));
  }

  SimulatedMac mac;
};

TEST_F(HostileClients, FloodsDelayNoPingAndEndWithTheRestore) {
  const auto daemon = mac.start(guardedBy(""));
  const Process first(flood), second(flood);
  test::await("forced fan", [this] { return mac.modes() == "10"; });
  const RawChannel patient;
  ASSERT_TRUE(patient.enter());
  for (int i = 0; i < 300; ++i) ASSERT_TRUE(patient.ping());
  expectRestoreBySIGTERM(*daemon);
}

// Both fans are forced. One client leaves descriptors that take a minute to close, another is
// stopped while it waits for replies, and a third is killed. Takes twenty real seconds.
TEST_F(HostileClients, WhoeverFallsSilentLosesTheFansOnTime) {
  const auto daemon = mac.start(guardedBy("") + " 2>$QUORVANE_ROOT/log");
  const Process stopped(flood);
  Process dying("fanctl force 1 2500");
  test::await("forced fans", [this] { return mac.modes() == "11"; });
  {
    const RawChannel left;
    ASSERT_TRUE(left.enter());
    fill(left, test::writeRequest("F0Tg", 0));
    EXPECT_TRUE(leaveBehind(left));  // for the thread that reads it
    EXPECT_TRUE(leaveBehind(left));  // for the thread that closes the socket
  }
  stopped.signal(SIGSTOP);
  dying.stop(SIGKILL);
  std::chrono::nanoseconds lastForce{}, lastWrite{};
  test::await("restore", [&] {
    lastForce = lastWrite;
    return mac.modes(&lastWrite) != "11";
  });
  EXPECT_NEAR(std::chrono::duration<double>(lastWrite - lastForce).count(), 20.75, 0.75);
  EXPECT_EQ(daemon->stop(SIGINT), 0);
  EXPECT_EQ(mac.modes(), "00");
  EXPECT_TRUE(mac.audited().ends_with(
      "lease expired — fail-safe\nrestore → automatic (lease expired); fans=[0, 1]\n"));
  EXPECT_NE(mac.root.read("/log").find("Fan lease expired — fail-safe restoring automatic\n"),
            std::string::npos);
}

// Four strangers of one user are in admission. The daemon cuts off the others.
TEST_F(HostileClients, NobodyWaitsForWhatStrangersLeaveBehind) {
  if (geteuid() != 0) GTEST_SKIP() << "takes another user";
  const auto daemon = mac.start(guardedBy(""));
  int left = 0;  // some attempts come too late
  for (const RawChannel& each : std::vector<RawChannel>(20)) {
    if (leaveBehind(each, 1)) ++left;
  }
  EXPECT_GT(left, 4);
  EXPECT_EQ(mac.sh("timeout 5 fanctl auto").front(), '0');
  EXPECT_EQ(daemon->stop(SIGTERM), 0);
}

// A crowd could use up the daemon's 40 descriptors.
TEST_F(HostileClients, CrowdsLeaveARestoreItsDescriptors) {
  const auto daemon = mac.start("prlimit --nofile=40 " + guardedBy(""));
  enterAsCrowd(force);  // and disconnects
  const std::vector<RawChannel> crowd = enterAsCrowd(force);
  EXPECT_LT(crowd.size(), everybody);
  expectRestoreBySIGTERM(*daemon);
  EXPECT_EQ(mac.audited().find("write error"), std::string::npos);
}

// The gatekeeper lists its descriptors, then hangs. Takes five real seconds.
TEST_F(HostileClients, AGatekeeperHasOnlyItsOwnAndEndsAtTheDeadline) {
  Process daemon(guardedBy("echo $(ls /proc/self/fd) >$QUORVANE_ROOT/descriptors; exec sleep 60"));
  const std::string socket = mac.root.path("/run/quorvane/com.quorvane.fanhelper");
  test::await("socket", [&] { return std::filesystem::is_socket(socket); });
  EXPECT_EQ(mac.sh("timeout 8.5 fanctl ping").front(), '3') << "sooner than fanctl gives up";
  EXPECT_EQ(mac.root.read("/descriptors"), "0 1 2 3\n") << "3 is the folder that ls reads";
  EXPECT_EQ(daemon.stop(SIGTERM), 0);
}

// The driver blocks in the first request, so all others wait.
TEST_F(HostileClients, WithEveryBoundFullTheGuardStaysSmall) {
  const auto daemon = mac.start(guardedBy(""));
  std::optional hardware(mac.takeHardware());
  const std::vector<RawChannel> crowd = enterAsCrowd(test::writeRequest(test::longestKey, 0));
  EXPECT_EQ(crowd.size(), everybody);
  for (const RawChannel& each : crowd) EXPECT_TRUE(each.ping()) << "its requests are read";
  const std::string status = "/proc/" + std::to_string(daemon->id()) + "/status";
  EXPECT_LT(std::stol(test::shell("awk '/VmHWM/ { print $2 }' " + status)), MEMORY_BOUND) << "kB";
  hardware.reset();
  expectRestoreBySIGTERM(*daemon);
}

// fanctl under other signatures. Only the first is admitted; the others cannot call any operation.
TEST_F(HostileClients, NobodyUnadmittedIsServed) {
  const auto daemon = mac.start();
  const auto trying = [&](const test::SigningIdentity& root, const char* team, const char* name) {
    mac.sh("cp $QUORVANE_ROOT/bin/fanctl $QUORVANE_ROOT/bin/other");
    root.issue({.units = std::string("/OU=") + team})
        .signExecutable(mac.root.path("/bin/other"), name);
    return mac.sh("other write F0Md 1").front();
  };
  EXPECT_EQ(trying(mac.trusted, "X4TQ8RW2ZN", "com.quorvane.app-vendra"), '0');
  EXPECT_EQ(trying(mac.trusted, "X4TQ8RW2ZM", "com.quorvane.app"), '3');
  EXPECT_EQ(trying(mac.trusted, "X4TQ8RW2ZN", "com.quorvane.apps"), '3');
  EXPECT_EQ(trying(test::SigningIdentity::makeRoot(), "X4TQ8RW2ZN", "com.quorvane.app"), '3');
  EXPECT_NE(mac.sh("unshare -Ur fanctl write F0Md 1").front(), '0') << "another user namespace";
  EXPECT_TRUE(mac.audited().ends_with("fans=2\nwrite F0Md=1\n"));
}

}  // namespace quorvane
