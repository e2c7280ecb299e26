// The whole channel in one process: the real listener, connections and client, real sockets and
// threads. Only the exported object and the verdict on signatures are fakes.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include "FanControlClient/FanControlClient.h"
#include "Platform/Linux/Channel/Connection.h"
#include "Platform/Linux/Channel/Gatekeeper.h"
#include "Support/Await.h"
#include "Support/ExportedObject.h"
#include "Support/RawChannel.h"
#include "Support/TemporaryRoot.h"

namespace quorvane::xpc {

bool admits(const Peer& peer, const std::string& requirement, Deadline /*deadline*/) {
  return peer.number() == getpid() && requirement == "signed";
}

using test::longestKey;
using test::RawChannel;

const TemporaryRoot root;
const std::string request = test::writeRequest("F0Tg", 2500);
const std::string requestToHold = test::writeRequest("held", 2500);

struct Channel : testing::Test {
  void SetUp() override {
    Listener listener(FanControlConstants::helperMachService);
    helper->requirement = "signed";
    listener.setDelegate(helper);
    ASSERT_EQ(listener.resume(), std::nullopt);
    for (const RawChannel* each : {&witness, &peer, &other}) ASSERT_TRUE(each->enter());
    const auto lock =
        std::filesystem::status(root.path("/run/quorvane/com.quorvane.fanhelper.lock"));
    EXPECT_EQ(lock.permissions(), std::filesystem::perms{0600});
  }
  /// No offender affects the well-behaved client.
  void TearDown() override { EXPECT_TRUE(witness.ping()); }

  /// Waits for `count` delivered writes. Expects no more of them during 300 pings of the witness.
  void expectWrites(int count) {
    test::await(std::to_string(count) + " writes", [&] { return helper->writes >= count; });
    for (int i = 0; i < 300; ++i) ASSERT_TRUE(witness.ping());
    EXPECT_EQ(helper->writes, count);
  }

  const std::shared_ptr<ExportedObject> helper = std::make_shared<ExportedObject>();
  RawChannel witness, peer, other;
};

TEST_F(Channel, ClientIsServedByTheDelegatesWholeConsent) {
  FanControlClient client;
  using enum Missing;
  for (const Missing part : {requirement, resume, consent, nothing}) {
    helper->missing = part;
    EXPECT_EQ(client.connect(), part == nothing) << static_cast<int>(part);
  }
  EXPECT_EQ(describe(client.writeFanKey(longestKey, INT64_MIN, true)), "true " + longestKey);
  EXPECT_FALSE(client.writeFanKey(longestKey + 'k', 0, true));
  EXPECT_FALSE(client.ping()) << "every failure is the end";
}

TEST_F(Channel, AnythingUnexpectedEndsThatConnection) {
  RawChannel patient;
  ASSERT_TRUE(patient.connect());
  const std::string response = patient.responseToChallenge();
  const std::pair<bool, std::string> rows[] = {{false, request},
                                               {false, response},
                                               {true, ""},
                                               {true, request + "x"},
                                               {true, test::writeRequest(longestKey + "k", 0)}};
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
  while (patient.send(request)) continue;  // until cut off, because it reads no reply
}

TEST_F(Channel, MessagesOfOthersEndTheConnection) {
  RawChannel borrowed;
  ASSERT_TRUE(borrowed.connect());
  const std::string response = borrowed.responseToChallenge();
  if (fork() == 0) {
    borrowed.send(response);
    other.send(request);
    _exit(0);
  }
  borrowed.waitForCutOff();
  other.waitForCutOff();
  EXPECT_GT(wait(nullptr), 0);
  expectWrites(0);
}

// Takes five real seconds.
TEST_F(Channel, SilenceEndsAdmissionAndNothingAfterIt) {
  const RawChannel silent;
  ASSERT_TRUE(silent.connect());
  silent.waitForCutOff();
}

TEST_F(Channel, OutstandingRepliesAreBoundedAndDelayNoPing) {
  for (int i = 0; i < maxOutstandingReplies; ++i) peer.send(requestToHold);
  expectWrites(maxOutstandingReplies);
  EXPECT_TRUE(peer.ping());
  peer.send(requestToHold);
  expectWrites(maxOutstandingReplies);
  helper->answerHeld();
  expectWrites(maxOutstandingReplies + 1);
}

// An ended connection keeps its socket until it owes no reply. Otherwise one of the next
// connections would get the descriptor's number, and with it the reply.
TEST_F(Channel, LateRepliesReachNobodyElse) {
  peer.send(requestToHold);
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
  {
    std::vector<RawChannel> entering;
    // The users and their places. The last places are reserved for root.
    for (const auto& [user, places] : {std::pair{1U, 4}, {2U, 4}, {3U, 4}, {4U, 0}, {0U, 4}}) {
      int taken = 0;
      while (entering.emplace_back().connect(user) && entering.back().receive()) ++taken;
      EXPECT_EQ(taken, places) << user;
    }
  }
  // The connections' threads free those places later.
  test::await("free place", [] { return RawChannel().enter(1); });
  std::vector<RawChannel> admitted;
  int entered = 0;
  while (admitted.emplace_back().enter(2)) ++entered;
  EXPECT_EQ(entered, maxAdmittedConnectionsOfOneUser);
  EXPECT_TRUE(RawChannel().enter(3));
  EXPECT_TRUE(RawChannel().enter(0));
}

}  // namespace quorvane::xpc
