// The real daemon, client and probe on a simulated machine, with signals and kills.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <thread>

#include "Support/HwmonTree.h"
#include "Support/RawChannel.h"
#include "Support/SimulatedMac.h"

namespace quorvane {
namespace {

using namespace std::chrono_literals;

const std::string started = "helper 1.0.0 started; model=Macmini9,1 fans=2\n";
const std::string baseline = "F0Md=00 F1Md=00 ";

class Processes : public testing::Test {
 protected:
  /// Returns once the writes to the SMC are as many.
  void waitForWrites(std::size_t count) const {
    const auto done = [&] { return mac.written().size() >= count * baseline.size() / 2; };
    while (!done()) std::this_thread::sleep_for(5ms);
  }
  static int stop(Process& daemon, int signal) {
    daemon.signal(signal);
    return daemon.wait();
  }

  SimulatedMac mac;
};

TEST_F(Processes, ASessionOfTwoClientsUnderTheJournalsEyes) {
  const auto daemon = mac.start("QuorvaneFanHelper 2>$QUORVANE_ROOT/log");
  EXPECT_EQ(mac.sh("fanctl write F0Md 1"), "0:");
  EXPECT_EQ(mac.batch("write\tF1Tg\t2500\tfloat\nwrite\t\t1\nwrite\tF0Md\t7\nstatus\nping\n"),
            "true\nfalse\tRefused:  is not a fan-control key\nfalse\tBad mode value\n"
            "version=1.0.0\tmodel=Macmini9,1\tsmcOpen=1\tfanCount=2\tforcedFans=0,1\tleaseSeconds="
            "20\nok 1.0.0\n");
  EXPECT_EQ(mac.sh("fanctl write FNum 3").front(), '1');
  EXPECT_EQ(stop(*daemon, SIGTERM), 0);
  EXPECT_EQ(mac.audited(),
            started +
                "write F0Md=1\nwrite F1Tg=2500\nREJECTED non-fan key \nREJECTED non-fan key FNum\n"
                "restore → automatic (shutdown); fans=[0, 1]\n");
  EXPECT_EQ(mac.root.read("/log"),
            "com.quorvane.app FanHelperMain: Fan helper listening on com.quorvane.fanhelper\n"
            "com.quorvane.app FanHelperMain: SIGTERM — restoring automatic fans and exiting\n");
  EXPECT_EQ(mac.sh("fanctl ping").front(), '3');
}

// Twenty real seconds: the one test in which the lease runs out in the daemon.
TEST_F(Processes, ADeadClientLosesItsFans) {
  const auto daemon = mac.start();
  Process client("fanctl force 0 2500");
  waitForWrites(4);
  const auto forced = std::chrono::steady_clock::now();
  stop(client, SIGKILL);
  waitForWrites(5);
  EXPECT_NEAR(std::chrono::duration<double>(std::chrono::steady_clock::now() - forced).count(), 20,
              1);
  EXPECT_EQ(stop(*daemon, SIGINT), 0);
  EXPECT_EQ(mac.audited(), started +
                               "write F0Md=1\nwrite F0Tg=2500\nlease expired — fail-safe\n"
                               "restore → automatic (lease expired); fans=[0]\n");
}

TEST_F(Processes, BothSignalsAtOnceRestoreOnce) {
  const auto daemon = mac.start();
  mac.batch("write\tF1Md\t1\n");
  daemon->signal(SIGSTOP);
  daemon->signal(SIGINT);
  daemon->signal(SIGTERM);
  EXPECT_EQ(stop(*daemon, SIGCONT), 0);
  EXPECT_EQ(mac.audited(), started + "write F1Md=1\nrestore → automatic (shutdown); fans=[1]\n");
}

TEST_F(Processes, NothingIsWrittenAfterTheRestoreUnderAFloodAndABrokenStandardError) {
  int broken[2];
  ASSERT_EQ(pipe(broken), 0);
  close(broken[0]);
  const std::string intoBroken = "QuorvaneFanHelper 2>&" + std::to_string(broken[1]);
  const auto daemon = mac.start(intoBroken);
  std::filesystem::copy(PROGRAMS_FOLDER "/flood", mac.root.path("/bin/flood"));
  mac.trusted.issue().signExecutable(mac.root.path("/bin/flood"), "com.quorvane.app");
  const Process first("flood"), second("flood");
  const test::RawChannel silent;  // is being admitted all the while
  ASSERT_TRUE(silent.connect());
  waitForWrites(100);
  EXPECT_EQ(mac.sh(intoBroken), "1:") << "a second daemon";
  EXPECT_EQ(stop(*daemon, SIGTERM), 0);
  EXPECT_TRUE(mac.written().ends_with(" F0Md=00 "));
  EXPECT_TRUE(mac.audited().ends_with("restore → automatic (shutdown); fans=[0]\n"));
}

TEST_F(Processes, ACrashEndsInABaselineAtTheNextStart) {
  const auto crashing = mac.start();
  mac.batch("write\tF0Md\t1\nwrite\tF1Md\t1\n");
  EXPECT_EQ(stop(*crashing, SIGKILL), 128 + SIGKILL);
  EXPECT_TRUE(mac.written().ends_with("F0Md=01 F1Md=01 "));
  const auto daemon = mac.start();
  EXPECT_TRUE(mac.written().ends_with("F0Md=01 F1Md=01 " + baseline));
}

TEST_F(Processes, TheServiceManagerIsToldAndNeverWaitedFor) {
  for (const std::string prefix : {"", "@"}) {
    const std::string name = prefix + mac.root.path("/notify");
    sockaddr_un address{AF_UNIX, {}};
    name.copy(address.sun_path, sizeof address.sun_path - 1);
    if (!prefix.empty()) address.sun_path[0] = '\0';
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    const auto* const place = reinterpret_cast<const sockaddr*>(&address);
    const int manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(manager, place, length), 0);
    const auto told = [manager] {
      std::string state(64, '\0');
      state.resize(
          static_cast<std::size_t>(std::max<ssize_t>(0, recv(manager, state.data(), 64, 0))));
      return state;
    };
    setenv("NOTIFY_SOCKET", name.c_str(), 1);
    Process daemon("QuorvaneFanHelper");
    EXPECT_EQ(told(), "READY=1");
    EXPECT_TRUE(mac.written().ends_with(baseline));
    EXPECT_EQ(mac.sh("fanctl ping").front(), '0');
    daemon.signal(SIGTERM);
    EXPECT_EQ(told(), "STOPPING=1");
    EXPECT_EQ(daemon.wait(), 0);
    // Until it has no room left; one sender's own room may not be enough for that.
    for (int sender = 0; sender < 16; ++sender) {
      const int filling = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
      while (sendto(filling, "", 1, MSG_DONTWAIT, place, length) == 1) continue;
      close(filling);
    }
    EXPECT_EQ(stop(*mac.start(), SIGTERM), 0);
    close(manager);
  }
}

TEST_F(Processes, WithoutAnSMCItServesAndEndsAsUsual) {
  mac.sh("rm $QUORVANE_ROOT/var/lib/quorvane/smc");
  EXPECT_EQ(mac.sh("QuorvaneFanHelper --probe"), "1:SMC open failed: notOpen\n");
  const auto daemon = mac.start();
  EXPECT_EQ(stop(*daemon, SIGTERM), 0);
  EXPECT_EQ(mac.audited(), "helper 1.0.0 started; model=Macmini9,1 fans=0\n");
}

TEST_F(Processes, ADaemonThatCannotServeEnds) {
  mac.root.write("/run/quorvane", "a file where the folder should be");
  EXPECT_EQ(mac.sh("QuorvaneFanHelper").front(), '1');
  EXPECT_EQ(mac.written(), baseline) << "the fans are reset all the same";
  mac.sh("rm $QUORVANE_ROOT/run/quorvane");
  const auto daemon = mac.start();
  mac.batch("write\tF0Md\t1\n");
  EXPECT_EQ(mac.sh("QuorvaneFanHelper"),
            "1:QuorvaneFanHelper: another process serves com.quorvane.fanhelper\n");
  EXPECT_TRUE(mac.written().ends_with("F0Md=01 ")) << "a second daemon touches no fan";
  EXPECT_EQ(mac.sh("fanctl ping"), "0:ok 1.0.0\n");
}

TEST_F(Processes, ProbeReadsAndWritesNothing) {
  EXPECT_EQ(mac.sh("QuorvaneFanHelper ignored --probe"),
            "0:fanCount=2\n"
            "Fan 0: Ac=1350 Tg=1350 Mn=1350 Mx=5900 Md=0\n"
            "Fan 1: Ac=1400 Tg=1400 Mn=1400 Mx=6000 Md=0\n");
  EXPECT_EQ(mac.written() + mac.audited(), "");
}

TEST_F(Processes, FansThatTheKernelShowsGoBeforeTheSimulatedOnes) {
  const std::string fan = plantHwmon(mac.root, "applesmc", false) + "fan2_";
  EXPECT_TRUE(mac.sh("QuorvaneFanHelper --probe").ends_with("Tg=1400 Mn=1200 Mx=5900 Md=0\n"));
  const auto daemon = mac.start();
  EXPECT_EQ(mac.batch("write\tF1Md\t1\nwrite\tF1Tg\t12000\n"), "true\ntrue\n");
  EXPECT_EQ(mac.root.read(fan + "output") + mac.root.read(fan + "manual"), "59001");
  EXPECT_EQ(stop(*daemon, SIGTERM), 0);
  EXPECT_EQ(mac.root.read(fan + "manual") + mac.written(), "0");
}

// fanctl under other signatures: each is cut off before any operation.
TEST_F(Processes, NobodyUnadmittedIsServed) {
  const auto daemon = mac.start();
  const std::filesystem::path other = mac.root.path("/bin/other");
  const auto trying = [&](const test::SigningIdentity& root, const char* team,
                          const char* identifier) {
    mac.sh("cp $QUORVANE_ROOT/bin/fanctl $QUORVANE_ROOT/bin/other");
    root.issue({.organizationalUnits = {team}}).signExecutable(other, identifier);
    return mac.sh("other write F0Md 1").front();
  };
  const auto stranger = test::SigningIdentity::makeRoot();
  EXPECT_EQ(trying(mac.trusted, "X4TQ8RW2ZN", "com.quorvane.app-vendra"), '0');
  EXPECT_EQ(trying(mac.trusted, "X4TQ8RW2ZM", "com.quorvane.app"), '3');
  EXPECT_EQ(trying(mac.trusted, "X4TQ8RW2ZN", "com.quorvane.apps"), '3');
  EXPECT_EQ(trying(stranger, "X4TQ8RW2ZN", "com.quorvane.app"), '3');
  EXPECT_EQ(trying(mac.trusted, "X4TQ8RW2ZN", "com.quorvane.app"), '0');
  EXPECT_EQ(mac.sh("echo >>$QUORVANE_ROOT/bin/other; other write F0Md 1").front(), '3')
      << "tampered";
  EXPECT_EQ(mac.sh("rm $QUORVANE_ROOT/bin/other.codesign; other write F0Md 1").front(), '3')
      << "unsigned";
  EXPECT_NE(mac.sh("unshare -Ur fanctl write F0Md 1").front(), '0') << "another user namespace";
  EXPECT_EQ(mac.audited(), started + "write F0Md=1\nwrite F0Md=1\n");
}

/// A process that connects on the channel's socket, sends the message, and then becomes the signed
/// client, which waits for its standard input and knows nothing of the socket.
class Impostor {
 public:
  Impostor(const SimulatedMac& mac, test::RawChannel& channel, const std::string& message) {
    EXPECT_EQ(pipe2(ready, O_CLOEXEC), 0);
    child = fork();
    if (child == 0) {
      if (!channel.connect() || (!message.empty() && !channel.send(message))) _exit(1);
      execl(mac.root.path("/bin/fanctl").c_str(), "fanctl", "force", "0", "0", nullptr);
      _exit(1);
    }
    close(ready[1]);
    char none = 0;
    EXPECT_EQ(read(ready[0], &none, 1), 0) << "the exec closes the other end";
  }
  ~Impostor() {
    close(ready[0]);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
  }

 private:
  int ready[2] = {};
  pid_t child = -1;
};

// The daemon is held while the peer execs, so that admission meets the signed client in the peer's
// place.
TEST_F(Processes, WhatAnUnsignedProcessLeavesToASignedOneGetsNothingDone) {
  const auto daemon = mac.start();
  const std::array<xpc::Value, 3> arguments{std::string("F1Md"), std::int64_t{1}, false};
  for (const bool queued : {true, false}) {
    daemon->signal(SIGSTOP);
    test::RawChannel channel;
    const std::string request = xpc::encodeRequest(1, fanControlOperations[0].selector, arguments);
    const Impostor impostor(mac, channel, queued ? request : "");
    daemon->signal(SIGCONT);
    if (!queued) {
      const std::string response = channel.responseToChallenge();
      ASSERT_NE(response, "") << "the signed client is challenged";
      channel.send(response);  // by this process, not by the one that connected
      channel.send(request);
    }
    channel.waitForCutOff();
  }
  EXPECT_EQ(mac.written().find("F1Md=01"), std::string::npos);
}

}  // namespace
}  // namespace quorvane
