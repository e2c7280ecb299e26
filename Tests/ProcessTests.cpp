// The real daemon, client and probe on a simulated machine, with signals and kills.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <regex>
#include <thread>

#include "Support/RawChannel.h"
#include "Support/SimulatedMac.h"

namespace quorvane {
namespace {

using Lines = std::vector<std::string>;
using namespace std::chrono_literals;

constexpr char started[] = "helper 1.0.0 started; model=Macmini9,1 fans=2\n";

TEST(Processes, ASessionOfTwoClients) {
  SimulatedMac mac;
  mac.start();
  EXPECT_EQ(run(mac.fanctl("write F0Md 1")).status, 0);
  EXPECT_EQ(
      mac.batch("write\tF1Tg\t2500\tfloat\nwrite\t\t1\nwrite\tF0Md\t7\nstatus\nping\n"),
      "true\n"
      "false\tRefused:  is not a fan-control key\n"
      "false\tBad mode value\n"
      "version=1.0.0\tmodel=Macmini9,1\tsmcOpen=1\tfanCount=2\tforcedFans=0,1\tleaseSeconds=20\n"
      "ok 1.0.0\n");
  EXPECT_EQ(run(mac.fanctl("write FNum 3")).status, 1);
  EXPECT_EQ(mac.stop(SIGTERM), 0);
  EXPECT_EQ(mac.audited(),
            std::string(started) +
                "write F0Md=1\nwrite F1Tg=2500\nREJECTED non-fan key \n"
                "REJECTED non-fan key FNum\nrestore → automatic (shutdown); fans=[0, 1]\n");
  EXPECT_EQ(mac.daemon->errors(),
            "com.quorvane.app FanHelperMain: Fan helper listening on com.quorvane.fanhelper\n"
            "com.quorvane.app FanHelperMain: SIGTERM — restoring automatic fans and exiting\n");
  EXPECT_EQ(mac.daemon->output(), "");
  EXPECT_EQ(run(mac.fanctl("ping")).status, 3);
}

// Twenty real seconds: the one test in which the lease runs out in the daemon.
TEST(Processes, ADeadClientLosesItsFans) {
  SimulatedMac mac;
  mac.start();
  Process client(mac.fanctl("force 0 2500"));
  while (mac.written().size() < 4) std::this_thread::sleep_for(10ms);
  client.signal(SIGKILL);
  client.wait();
  EXPECT_TRUE(std::regex_search(mac.probe(), std::regex("^Fan 0: .* Tg=2500 .* Md=1\n")))
      << mac.probe();
  const auto killed = std::chrono::steady_clock::now();
  while (mac.written().size() < 5) std::this_thread::sleep_for(10ms);
  const auto waited = std::chrono::steady_clock::now() - killed;
  EXPECT_GT(waited, 14s);
  EXPECT_LT(waited, 21s);
  EXPECT_EQ(mac.written().back(), "F0Md=00");
  EXPECT_EQ(mac.stop(SIGINT), 0);
  EXPECT_EQ(mac.audited(), std::string(started) +
                               "write F0Md=1\nwrite F0Tg=2500\nlease expired — fail-safe\n"
                               "restore → automatic (lease expired); fans=[0]\n");
}

// What either signal must restore, in whatever state it meets the daemon.
TEST(Processes, SignalsRestoreOnceAndEndWithZero) {
  SimulatedMac mac;
  mac.start();
  mac.batch("write\tF1Md\t1\n");
  mac.daemon->signal(SIGSTOP);  // so that both are pending at once
  mac.daemon->signal(SIGINT);
  mac.daemon->signal(SIGTERM);
  EXPECT_EQ(mac.stop(SIGCONT), 0);
  EXPECT_EQ(mac.audited(),
            std::string(started) + "write F1Md=1\nrestore → automatic (shutdown); fans=[1]\n");

  mac.start();
  mac.batch("write\tF0Md\t1\n");
  EXPECT_EQ(mac.stop(SIGINT), 0);
  EXPECT_EQ(mac.written().back(), "F0Md=00");
  EXPECT_EQ(mac.daemon->errors(),
            "com.quorvane.app FanHelperMain: Fan helper listening on com.quorvane.fanhelper\n");
}

TEST(Processes, NothingIsWrittenAfterTheRestoreUnderAFlood) {
  SimulatedMac mac;
  mac.start();
  std::string flood;
  for (int i = 0; i < 20000; ++i) flood += "write\tF0Tg\t3000\n";
  Process first(mac.fanctl("batch"), flood);
  Process second(mac.fanctl("batch"), flood);
  while (mac.written().size() < 100) std::this_thread::sleep_for(1ms);
  EXPECT_EQ(mac.stop(SIGTERM), 0);
  EXPECT_EQ(first.wait(), 3);
  EXPECT_EQ(second.wait(), 3);
  EXPECT_EQ(mac.written().back(), "F0Md=00");
  EXPECT_TRUE(mac.audited().ends_with("restore → automatic (shutdown); fans=[0]\n"));
}

TEST(Processes, ACrashEndsInABaselineAtTheNextStart) {
  SimulatedMac mac;
  mac.start();
  mac.batch("write\tF0Md\t1\nwrite\tF1Md\t1\n");
  EXPECT_EQ(mac.stop(SIGKILL), 128 + SIGKILL);
  EXPECT_TRUE(std::regex_search(mac.probe(), std::regex("Md=1\nFan 1: .* Md=1\n"))) << mac.probe();
  mac.start();
  EXPECT_TRUE(std::regex_search(mac.probe(), std::regex("Md=0\nFan 1: .* Md=0\n"))) << mac.probe();
}

TEST(Processes, WithoutAnSMCItServesAndEndsAsUsual) {
  SimulatedMac mac;
  std::filesystem::remove(mac.root.path("/var/lib/quorvane/smc"));
  mac.start();
  EXPECT_EQ(mac.batch("write\tFNum\t1\nauto\n"), "false\tSMC not open\ntrue\n");
  EXPECT_EQ(mac.stop(SIGTERM), 0);
  EXPECT_EQ(mac.audited(), "helper 1.0.0 started; model=Macmini9,1 fans=0\n");
  EXPECT_TRUE(
      mac.daemon->errors().starts_with("com.quorvane.app FanHelper: SMC open failed: notOpen\n"));
}

TEST(Processes, ASecondDaemonEndsBeforeItTouchesAFan) {
  SimulatedMac mac;
  mac.start();
  mac.batch("write\tF0Md\t1\n");
  const Lines before = mac.written();
  const Finished second = run({QUORVANE_HELPER});
  EXPECT_EQ(second.status, 1);
  EXPECT_NE(second.errors, "");
  EXPECT_EQ(mac.written(), before);
  EXPECT_EQ(run(mac.fanctl("ping")).status, 0);
}

TEST(Processes, WithoutASocketTheFansAreStillReset) {
  SimulatedMac mac;
  mac.root.write("/run/quorvane", "a file where the folder should be");
  const Finished daemon = run({QUORVANE_HELPER});
  EXPECT_EQ(daemon.status, 1);
  EXPECT_NE(daemon.errors, "");
  EXPECT_EQ(mac.written(), (Lines{"F0Md=00", "F1Md=00"}));
}

TEST(Processes, SIGTERMIsObeyedWithABrokenStandardErrorAndSilentPeers) {
  SimulatedMac mac;
  int broken[2];
  ASSERT_EQ(pipe(broken), 0);
  close(broken[0]);
  mac.daemon = std::make_unique<Process>(
      Command{"/bin/sh", "-c", "exec " QUORVANE_HELPER " 2>&" + std::to_string(broken[1])});
  close(broken[1]);
  while (run(mac.fanctl("ping")).status != 0) std::this_thread::sleep_for(10ms);
  mac.batch("write\tF0Md\t1\n");
  test::RawChannel silent;
  ASSERT_TRUE(silent.connect());
  EXPECT_EQ(mac.stop(SIGTERM), 0);
  EXPECT_EQ(mac.written().back(), "F0Md=00");
}

TEST(Processes, ProbeReadsAndWritesNothing) {
  SimulatedMac mac;
  const Finished probe = run({QUORVANE_HELPER, "ignored", "--probe"});
  EXPECT_EQ(probe.status, 0);
  EXPECT_TRUE(
      std::regex_match(probe.output, std::regex("fanCount=2\n"
                                                "Fan 0: Ac=\\d+ Tg=\\d+ Mn=\\d+ Mx=\\d+ Md=0\n"
                                                "Fan 1: Ac=\\d+ Tg=\\d+ Mn=\\d+ Mx=\\d+ Md=0\n")))
      << probe.output;
  EXPECT_EQ(probe.errors, "");
  EXPECT_EQ(mac.written(), Lines{});
  EXPECT_EQ(mac.audited(), "");
  std::filesystem::remove(mac.root.path("/var/lib/quorvane/smc"));
  EXPECT_EQ(run({QUORVANE_HELPER, "--probe"}).status, 1);
  EXPECT_EQ(run({QUORVANE_HELPER, "--probe"}).output, "SMC open failed: notOpen\n");
}

/// Each client is fanctl under other signatures; each is cut off before any operation.
TEST(Processes, NobodyUnadmittedIsServed) {
  using test::CertificateOptions;
  SimulatedMac mac;
  mac.start();
  CertificateOptions otherTeam;
  otherTeam.organizationalUnits = {"A1B2C3D4E5"};
  const auto stranger = test::SigningIdentity::makeRoot();
  struct Row {
    const char* what;
    std::function<void(const std::filesystem::path&)> sign;
    int status;
  };
  const Row rows[] = {
      {"second bundle identifier",
       [&](const auto& file) {
         mac.trusted.issue().signExecutable(file, "com.quorvane.app-vendra");
       },
       0},
      {"unsigned", [](const auto&) {}, 3},
      {"wrong team",
       [&](const auto& file) {
         mac.trusted.issue(otherTeam).signExecutable(file, "com.quorvane.app");
       },
       3},
      {"wrong identifier",
       [&](const auto& file) { mac.trusted.issue().signExecutable(file, "com.quorvane.apps"); }, 3},
      {"unknown root",
       [&](const auto& file) { stranger.issue().signExecutable(file, "com.quorvane.app"); }, 3},
      {"tampered",
       [&](const auto& file) {
         mac.trusted.issue().signExecutable(file, "com.quorvane.app");
         std::filesystem::resize_file(file, std::filesystem::file_size(file) + 1);
       },
       3},
  };
  for (const Row& row : rows) {
    const std::filesystem::path copy = mac.root.path("/bin/other");
    std::filesystem::remove(copy.string() + ".codesign");
    std::filesystem::copy_file(QUORVANE_FANCTL, copy,
                               std::filesystem::copy_options::overwrite_existing);
    row.sign(copy);
    EXPECT_EQ(run({copy, "write", "F0Md", "1"}).status, row.status) << row.what;
  }
  EXPECT_EQ(mac.audited(), std::string(started) + "write F0Md=1\n");
}

/// A process that connects on the channel's socket, sends the message, and then becomes the signed
/// client, which waits for its standard input and knows nothing of the socket.
class Impostor {
 public:
  Impostor(const SimulatedMac& mac, test::RawChannel& channel, const std::string& message) {
    EXPECT_EQ(pipe(input), 0);
    int ready[2];
    EXPECT_EQ(pipe2(ready, O_CLOEXEC), 0);
    child = fork();
    if (child == 0) {
      dup2(input[0], STDIN_FILENO);
      close(input[1]);
      if (!channel.connect() || (!message.empty() && !channel.send(message))) _exit(1);
      execl(mac.client.c_str(), "fanctl", "batch", nullptr);
      _exit(1);
    }
    close(ready[1]);
    char none;
    EXPECT_EQ(read(ready[0], &none, 1), 0) << "returns at the exec, which closes the other end";
    close(ready[0]);
  }
  ~Impostor() {
    for (const int end : input) close(end);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
  }
  Impostor(const Impostor&) = delete;
  Impostor& operator=(const Impostor&) = delete;

 private:
  pid_t child;
  int input[2] = {-1, -1};
};

// The daemon is held while the peer execs, so that admission meets the signed client in the peer's
// place.
TEST(Processes, WhatAnUnsignedProcessLeavesToASignedOneGetsNothingDone) {
  SimulatedMac mac;
  mac.start();
  const std::array<xpc::Value, 3> force{std::string("F0Md"), std::int64_t{1}, false};
  {
    mac.daemon->signal(SIGSTOP);
    test::RawChannel channel;
    const Impostor impostor(mac, channel,
                            xpc::encodeRequest(1, fanControlOperations[0].selector, force));
    mac.daemon->signal(SIGCONT);
    channel.waitForCutOff();
  }
  {
    mac.daemon->signal(SIGSTOP);
    test::RawChannel channel;
    const Impostor impostor(mac, channel, "");
    mac.daemon->signal(SIGCONT);
    const std::string response = channel.responseToChallenge();
    ASSERT_NE(response, "") << "the signed client is challenged";
    channel.send(response);  // by this process, not by the one that connected
    channel.waitForCutOff();
  }
  EXPECT_EQ(mac.audited(), started);
}

}  // namespace
}  // namespace quorvane
