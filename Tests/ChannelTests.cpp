// The whole channel in one process: the real listener, connections and client, real sockets and
// threads. Only the exported object and the judgement on signatures are stand-ins.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "FanControlClient/FanControlClient.h"
#include "Platform/Linux/Channel/Connection.h"
#include "Platform/Linux/Channel/Gatekeeper.h"
#include "Support/Await.h"
#include "Support/ExportedObject.h"
#include "Support/Lingering.h"
#include "Support/RawChannel.h"
#include "Support/TemporaryRoot.h"

namespace quorvane::xpc {

bool admits(const Peer& peer, const std::string& requirement, Deadline /*deadline*/) {
  return peer.number() == getpid() && requirement == "signed";
}

using test::RawChannel;
const TemporaryRoot root;

/// The exported object and the delegate.
struct Helper final : ExportedObject, ListenerDelegate, std::enable_shared_from_this<Helper> {
  bool shouldAcceptNewConnection(Connection& connection) override {
    static_cast<IncomingConnection&>(connection).settings.timeToAdmit = timeToAdmit;
    if (missing != 4) connection.setExportedInterface(Interface::fanControl);
    connection.setExportedObject(shared_from_this());
    if (missing != 1) connection.setCodeSigningRequirement("signed");
    if (missing != 2) connection.resume();
    return missing != 3;
  }

  std::atomic<int> missing = 0;  // which part of the delegate's consent
  std::atomic<std::chrono::milliseconds> timeToAdmit{admissionTimeout};
};

std::string write(const std::string& key) {
  return encodeRequest(1, WriteFanKeyRequest{key, 2500, false});
}

const std::string longestKey(maxRequestSize - write("").size(), 'k');

struct Channel : testing::Test {
  void SetUp() override {
    Listener listener(FanControlConstants::helperMachService);
    listener.setDelegate(helper);
    ASSERT_EQ(listener.resume(), std::nullopt);
    for (const RawChannel* each : {&witness, &peer, &other}) ASSERT_TRUE(each->enter());
    const std::string path = machServiceSocketPath(FanControlConstants::helperMachService);
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{0666});
    EXPECT_EQ(std::filesystem::status(path + ".lock").permissions(), std::filesystem::perms{0600});
  }
  /// Whatever an offender did, who behaves is served.
  void TearDown() override { EXPECT_TRUE(witness.ping()); }

  /// That many writes are delivered, and no more for as long as the witness's pings take.
  void expectWrites(int count) {
    test::await(std::to_string(count) + " writes", [&] { return helper->writes >= count; });
    for (int i = 0; i < 300; ++i) ASSERT_TRUE(witness.ping());
    EXPECT_EQ(helper->writes, count);
  }

  std::shared_ptr<Helper> helper = std::make_shared<Helper>();
  RawChannel witness, peer, other;
};

TEST_F(Channel, ClientIsServedByTheDelegatesWholeConsent) {
  FanControlClient client;
  for (const int part : {1, 2, 3, 4, 0}) {
    helper->missing = part;
    EXPECT_EQ(client.connect(), part == 0) << part;
  }
  EXPECT_EQ(describe(client.writeFanKey(longestKey, INT64_MIN, true)), "true " + longestKey);
  EXPECT_FALSE(client.writeFanKey(longestKey + 'k', 0, true));
  EXPECT_FALSE(client.ping()) << "every failure is the end";
}

TEST_F(Channel, AnythingUnexpectedEndsThatConnection) {
  RawChannel patient;
  ASSERT_TRUE(patient.connect());
  const std::string request = write("F0Tg"), response = patient.responseToChallenge();
  const std::pair<bool, std::string> rows[] = {{false, request},
                                               {false, response},
                                               {true, ""},
                                               {true, request + "x"},
                                               {true, write(longestKey + "k")}};
  for (const auto& [isAdmitted, message] : rows) {
    RawChannel offender;
    ASSERT_TRUE(offender.connect());
    if (isAdmitted) offender.send(offender.responseToChallenge());
    offender.send(message);
    offender.send(request);
    offender.waitForCutOff();
  }
  patient.send(response);
  EXPECT_TRUE(patient.ping());
  expectWrites(0);
  while (patient.send(write(longestKey))) continue;  // until it is cut off: it reads no reply
}

TEST_F(Channel, MessagesOfOthersOrWithDescriptorsEndTheConnection) {
  RawChannel borrowed;
  ASSERT_TRUE(borrowed.connect());
  const std::string response = borrowed.responseToChallenge();
  const std::string request = write("F0Tg");
  if (fork() == 0) {
    borrowed.send(response);
    other.send(request);
    _exit(0);
  }
  borrowed.waitForCutOff();
  other.waitForCutOff();
  EXPECT_GT(wait(nullptr), 0);

  if (test::sendDescriptors(peer.socket.get(), request, {STDIN_FILENO})) {
    peer.waitForCutOff();
  } else {
    EXPECT_EQ(errno, EPERM) << "from Linux 6.16 on the kernel refuses it";
  }
  expectWrites(0);
}

TEST_F(Channel, SilenceEndsAdmissionAndNothingAfterIt) {
  helper->timeToAdmit = std::chrono::milliseconds(500);
  RawChannel idle, silent;
  ASSERT_TRUE(idle.enter());
  ASSERT_TRUE(silent.connect());
  silent.waitForCutOff();
  EXPECT_TRUE(idle.ping());
}

TEST_F(Channel, OutstandingRepliesAreBoundedAndDelayNoPing) {
  for (int i = 0; i < maxOutstandingReplies; ++i) peer.send(write("held"));
  expectWrites(maxOutstandingReplies);
  EXPECT_TRUE(peer.ping());
  peer.send(write("held"));
  expectWrites(maxOutstandingReplies);
  helper->answerHeld();
  expectWrites(maxOutstandingReplies + 1);
}

// The connection that is over keeps its socket until it owes no reply: were its number free before,
// one of the next connections would have it.
TEST_F(Channel, LateRepliesReachNobodyElse) {
  peer.send(write("held"));
  expectWrites(1);
  peer.send("malformed");
  peer.waitForCutOff();
  const std::vector<RawChannel> next(8);
  for (const RawChannel& each : next) ASSERT_TRUE(each.enter());
  helper->answerHeld();
  for (const RawChannel& each : next) EXPECT_TRUE(each.ping());
}

TEST_F(Channel, PlacesAreBoundedForEachUserAndInAll) {
  if (geteuid() != 0) GTEST_SKIP() << "takes several users";
  const auto isChallenged = [](const RawChannel& each, uid_t user) {
    return each.connect(user) && each.receive().has_value();
  };
  const auto enters = [](const RawChannel& each, uid_t user) {
    return each.connect(user) && each.send(each.responseToChallenge()) && each.ping();
  };
  {
    std::vector<RawChannel> entering;
    const auto takePlacesOf = [&](uid_t user) {
      for (int i = 0; i < maxConnectionsInAdmissionOfOneUser; ++i) {
        EXPECT_TRUE(isChallenged(entering.emplace_back(), user)) << user;
      }
      EXPECT_FALSE(isChallenged(RawChannel(), user)) << user;
    };
    for (const uid_t user : {1U, 2U, 3U}) takePlacesOf(user);
    EXPECT_FALSE(isChallenged(RawChannel(), 4)) << "the rest is root's";
    takePlacesOf(0);
  }
  // Those are gone, in their own time.
  test::await("free place", [&] { return enters(RawChannel(), 1); });
  const std::vector<RawChannel> admitted(maxAdmittedConnectionsOfOneUser + 1);
  const auto entered =
      std::ranges::count_if(admitted, [&](const RawChannel& each) { return enters(each, 2); });
  EXPECT_EQ(entered, maxAdmittedConnectionsOfOneUser);
  EXPECT_TRUE(enters(RawChannel(), 3));
  EXPECT_TRUE(enters(RawChannel(), 0));
}

}  // namespace quorvane::xpc
