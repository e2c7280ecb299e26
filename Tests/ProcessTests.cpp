// The real daemon, client and probe on a simulated machine, with signals and kills.
#include <gtest/gtest.h>

#include "Support/HwmonTree.h"
#include "Support/RawChannel.h"
#include "Support/SimulatedMac.h"

namespace quorvane {

const std::string started = "helper 1.0.0 started; model=Macmini9,1 fans=2\n";
const std::string baseline = "F0Md=00 F1Md=00 ";

struct Processes : testing::Test {
  SimulatedMac mac;
};

TEST_F(Processes, ASessionIsAuditedAndLoggedAndOtherSignalsAreIgnored) {
  mac.root.write("/sys/class/dmi/id/product_name", "Mac\"\x1B\xFF\n");
  const auto daemon = mac.start("QuorvaneFanHelper 2>$QUORVANE_ROOT/log");
  EXPECT_EQ(
      mac.batch(
          "write\tF0Md\t1\nwrite\tF1Tg\t2500\tfloat\nwrite\t\t1\nwrite\tF0Md\t7\nstatus\nping\n"),
      "true\ntrue\nfalse\tRefused:  is not a fan-control key\nfalse\tBad mode value\n"
      "version=1.0.0\tmodel=Mac\"\x1B\uFFFD\tsmcOpen=1\tfanCount=2\tforcedFans=0,1\tleaseSeconds="
      "20\nok 1.0.0\n");
  EXPECT_EQ(mac.sh("fanctl status --json | cut -d , -f 2"),
            "0:\"model\":\"Mac\\u0022\\u001b\uFFFD\"\n");
  for (const int ignored : {SIGHUP, SIGQUIT, SIGTSTP, SIGTTOU}) daemon->signal(ignored);
  EXPECT_EQ(mac.sh("fanctl write FNum 3").front(), '1');
  EXPECT_EQ(daemon->stop(SIGTERM), 0);
  EXPECT_EQ(mac.audited(),
            "helper 1.0.0 started; model=Mac\"\x1B\uFFFD fans=2\n"
            "write F0Md=1\nwrite F1Tg=2500\nREJECTED non-fan key \nREJECTED non-fan key FNum\n"
            "restore → automatic (shutdown); fans=[0, 1]\n");
  EXPECT_EQ(mac.root.read("/log"),
            "com.quorvane.app FanHelperMain: Fan helper listening on com.quorvane.fanhelper\n"
            "com.quorvane.app FanHelperMain: SIGTERM — restoring automatic fans and exiting\n");
}

TEST_F(Processes, BothSignalsAtOnceRestoreOnce) {
  const auto daemon = mac.start();
  mac.batch("write\tF1Md\t1\n");
  daemon->signal(SIGSTOP);
  daemon->signal(SIGINT);
  daemon->signal(SIGTERM);
  EXPECT_EQ(daemon->stop(SIGCONT), 0);
  EXPECT_EQ(mac.audited(), started + "write F1Md=1\nrestore → automatic (shutdown); fans=[1]\n");
}

// The driver throws while it holds the lock on the hardware's file. All other users of it block.
TEST_F(Processes, AFailureEndsItOnceAllFansAreAutomatic) {
  const auto daemon = mac.start("UnluckyHelper 2>$QUORVANE_ROOT/log");
  EXPECT_EQ(mac.batch("write\tF0Md\t1\nwrite\tF1Md\t1\n"), "true\ntrue\n");
  mac.root.write("/no-memory", "");
  EXPECT_EQ(mac.sh("fanctl write F1Tg 2500").front(), '3');
  EXPECT_EQ(daemon->stop(0), 128 + SIGABRT);
  EXPECT_EQ(mac.modes(), "00");
  EXPECT_NE(mac.root.read("/log").find("instance of 'std::bad_alloc'"), std::string::npos);
}

TEST_F(Processes, ASignalAmidTheStartIsServedLikeAnyOther) {
  const std::string start = "env --block-signal=TERM sh -c 'kill $$; exec QuorvaneFanHelper'";
  EXPECT_EQ(mac.sh("timeout 20 " + start).front(), '0') << "124 when it serves on";
}

TEST_F(Processes, TheServiceManagerIsToldAndNeverWaitedFor) {
  for (const std::string prefix : {"", "@"}) {
    const std::string name = prefix + mac.root.path("/notify");
    const auto address = socketAddress(name).value();
    const test::RawChannel manager{Descriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))};
    ASSERT_EQ(bind(manager.socket.get(), address.get(), address.size), 0);
    setenv("NOTIFY_SOCKET", name.c_str(), 1);
    Process daemon("QuorvaneFanHelper");
    EXPECT_EQ(manager.receive(), "READY=1");
    EXPECT_TRUE(mac.written().ends_with(baseline));
    daemon.signal(SIGTERM);
    EXPECT_EQ(manager.receive(), "STOPPING=1");
    EXPECT_EQ(daemon.stop(0), 0);
    while (sendDatagram(name, "")) continue;  // until the socket is full
    EXPECT_EQ(mac.start()->stop(SIGTERM), 0);
  }
}

TEST_F(Processes, WithoutAnSMCOrAModelItServesAndEndsAsUsual) {
  mac.sh("rm $QUORVANE_ROOT/var/lib/quorvane/smc $QUORVANE_ROOT/sys/class/dmi/id/product_name");
  EXPECT_EQ(mac.sh("QuorvaneFanHelper --probe"), "1:SMC open failed: notOpen\n");
  const auto daemon = mac.start("QuorvaneFanHelper 2>$QUORVANE_ROOT/log");
  EXPECT_EQ(daemon->stop(SIGTERM), 0);
  EXPECT_EQ(mac.audited(), "helper 1.0.0 started; model=Unknown fans=0\n");
  EXPECT_TRUE(
      mac.root.read("/log").starts_with("com.quorvane.app FanHelper: SMC open failed: notOpen\n"));
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
}

TEST_F(Processes, ProbeReadsAndWritesNothing) {
  EXPECT_EQ(mac.sh("QuorvaneFanHelper ignored --probe"),
            "0:fanCount=2\n"
            "Fan 0: Ac=1350 Tg=1350 Mn=1350 Mx=5900 Md=0\n"
            "Fan 1: Ac=1400 Tg=1400 Mn=1400 Mx=6000 Md=0\n");
  mac.sh("smcsim remove F1Mx; smcsim remove F1Md; smcsim set F0Md 01");
  EXPECT_EQ(mac.sh("fanctl fans"),
            "0:Fan    Actual    Target   Minimum   Maximum      Mode\n"
            "  0      1350      1350      1350      5900    forced\n"
            "  1      1400      1400      1400         -         -\n");
  EXPECT_EQ(mac.sh("fanctl fans >/dev/full").front(), '1');
  EXPECT_EQ(mac.written(), "");
  EXPECT_FALSE(std::filesystem::exists(mac.root.path("/Library"))) << "no audit log either";
}

TEST_F(Processes, FanctlRenewsUntilItIsStoppedAndRefusesAMalformedBatch) {
  const auto daemon = mac.start();
  Process force("fanctl force 0=2500");
  const std::string renewed = started + "write F0Md=1\nwrite F0Tg=2500\nwrite F0Tg=2500\n";
  test::await("renewal", [&] { return mac.audited() == renewed; });
  EXPECT_EQ(force.stop(SIGHUP), 0);
  EXPECT_EQ(mac.audited(), renewed + "write F0Md=0\n");
  EXPECT_EQ(mac.sh("fanctl force 0 2500rpm"), "2:fanctl: rpm must be a whole number: 2500rpm\n");
  EXPECT_EQ(mac.sh("fanctl force 0=0 1=12001"), "2:fanctl: rpm must be 0 to 12000: 12001\n");
  // Names a command that prints the reason, because a client that is cut off does not know it.
  const std::string unsignedClient = PROGRAMS_FOLDER "/fanctl";
  EXPECT_EQ(mac.sh(unsignedClient + " ping 2>&1 | sed 's/.*why: //' | sh"),
            "1:" + unsignedClient + ": the signature does not exist\n");
  for (const std::string line : {"", "ping\t", "write F0Tg 0", "write\tF0Tg", "write\tF0T\xFF\t0",
                                 "write\tF0Tg\t1.0", "write\tF0Tg\t0\tFloat", "sleep\t-1"}) {
    mac.root.write("/batch", line + "\nping\n");
    EXPECT_EQ(mac.sh("fanctl batch <$QUORVANE_ROOT/batch").front(), '2') << line;
  }
}

TEST_F(Processes, FansThatTheKernelShowsGoBeforeTheSimulatedOnes) {
  const std::string fan = plantHwmon(mac.root, "applesmc", false) + "fan2_";
  EXPECT_TRUE(mac.sh("QuorvaneFanHelper --probe").ends_with("Tg=1400 Mn=1200 Mx=5900 Md=0\n"));
  const auto daemon = mac.start();
  EXPECT_EQ(mac.batch("write\tF1Md\t1\nwrite\tF1Tg\t12000\n"), "true\ntrue\n");
  EXPECT_EQ(mac.root.read(fan + "output"), "5900");
  EXPECT_EQ(mac.root.read(fan + "manual"), "1");
  EXPECT_EQ(daemon->stop(SIGTERM), 0);
  EXPECT_EQ(mac.root.read(fan + "manual"), "0");
  EXPECT_EQ(mac.written(), "") << "of the simulated SMC";
}

struct KillPoints : Processes {};

// Kills the daemon before and after each write of a session to the hardware, which keeps its state.
// The next daemon, the real one, must restore the fans before it serves anybody.
TEST_F(KillPoints, AfterACrashAnywhereAllFansAreAutomaticAtTheFirstReply) {
  int point = 4;  // after the two writes of the start
  for (;; ++point) {
    const auto doomed = mac.start("env KILL_POINT=" + std::to_string(point) + " UnluckyHelper");
    // Forces by mode and target, renews, releases, restores, and leaves fans for the shutdown.
    mac.batch(
        "write\tF0Md\t1\nwrite\tF0Tg\t2500\tfloat\nwrite\tF1Md\t1\nwrite\tF1Tg\t2500\tfloat\n"
        "write\tF0Tg\t2600\tfloat\nwrite\tF0Md\t0\nauto\nwrite\tF0Md\t1\nwrite\tF1Md\t1\n");
    const int status = doomed->stop(SIGTERM);
    if (status == 0) break;
    ASSERT_EQ(status, 128 + SIGKILL) << point;
    const auto next = mac.start();
    EXPECT_EQ(mac.modes(), "00") << point;
  }
  EXPECT_EQ(point, 4 + 2 * 11) << "nine writes by requests, two by the shutdown";
}

}  // namespace quorvane
