// The whole channel in one process: the real listener, connections and client, real sockets and
// threads. Only the exported object and the judgement on signatures are stand-ins.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "FanControlClient/FanControlClient.h"
#include "Platform/Linux/Channel/Connection.h"
#include "Platform/Linux/CodeSigning/PeerIdentity.h"
#include "Support/RawChannel.h"
#include "Support/TemporaryRoot.h"

namespace quorvane::xpc {

bool satisfiesRequirement(int executable, std::string_view requirement) {
  return executable >= 0 && requirement == "signed";
}

namespace {

using test::RawChannel;
const TemporaryRoot root;

/// The exported object and the delegate. Answers a write at once, but one of the key "held" when
/// the test says so.
struct Helper final : FanControlXPC, ListenerDelegate, std::enable_shared_from_this<Helper> {
  void writeFanKey(std::string key, std::int64_t value, bool isFloat, OutcomeReply reply) override {
    const std::lock_guard lock(mutex);
    ++writes;
    if (key != "held") return reply(isFloat && value == -1, std::move(key));
    held.push_back(std::move(reply));
  }
  void restoreAuto(OutcomeReply) override {}
  void status(StatusReply) override {}
  void ping(PingReply reply) override { reply("ok"); }

  bool shouldAcceptNewConnection(Connection& connection) override {
    static_cast<IncomingConnection&>(connection).settings.timeToAdmit = timeToAdmit;
    connection.setExportedInterface({fanControlOperations});
    connection.setExportedObject(shared_from_this());
    if (missing != 1) connection.setCodeSigningRequirement("signed");
    if (missing != 2) connection.resume();
    return missing != 3;
  }

  void answerHeld() {
    const std::lock_guard lock(mutex);
    for (const OutcomeReply& reply : std::exchange(held, {})) reply(true, std::nullopt);
  }

  std::atomic<int> missing = 0;  // which part of the delegate's consent
  std::atomic<std::chrono::milliseconds> timeToAdmit{admissionTimeout};
  std::atomic<int> writes = 0;
  std::mutex mutex;
  std::vector<OutcomeReply> held;
};

std::string write(const std::string& key) {
  const Value arguments[] = {key, std::int64_t{2500}, false};
  return encodeRequest(1, fanControlOperations[0].selector, arguments);
}

const std::string longestKey(maxRequestSize - write("").size(), 'k');

struct Channel : testing::Test {
  void SetUp() override {
    Listener listener(FanControlConstants::helperMachService);
    listener.setDelegate(helper);
    ASSERT_EQ(listener.resume(), std::nullopt);
    ASSERT_TRUE(witness.enter() && peer.enter() && other.enter());
    const std::string path = machServiceSocketPath(FanControlConstants::helperMachService);
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{0666});
    EXPECT_EQ(std::filesystem::status(path + ".lock").permissions(), std::filesystem::perms{0600});
  }
  /// Whatever an offender did, who behaves is served.
  void TearDown() override { EXPECT_TRUE(witness.ping()); }

  /// Waits for that many writes, and then for a while whether there are more.
  void expectWrites(int count) {
    while (helper->writes < count) std::this_thread::yield();
    for (int i = 0; i < 300; ++i) ASSERT_TRUE(witness.ping());
    EXPECT_EQ(helper->writes, count);
  }

  std::shared_ptr<Helper> helper = std::make_shared<Helper>();
  RawChannel witness, peer, other;
};

TEST_F(Channel, ClientIsServedByTheDelegatesWholeConsent) {
  FanControlClient client;
  for (const int part : {1, 2, 3, 0}) {
    helper->missing = part;
    EXPECT_EQ(client.connect(), part == 0) << part;
  }
  const auto outcome = client.writeFanKey(longestKey, -1, true);
  ASSERT_TRUE(outcome && outcome->success && outcome->message == longestKey);
  EXPECT_FALSE(client.writeFanKey(longestKey + 'k', -1, true));
  EXPECT_FALSE(client.ping()) << "every failure is the end";
}

TEST_F(Channel, AnythingUnexpectedEndsThatConnection) {
  RawChannel patient;
  ASSERT_TRUE(patient.connect());
  std::string request = write("F0Tg"), echo = patient.responseToChallenge();
  const std::string longer = request + "x", tooLong = write(longestKey + "k");
  const std::pair<bool, std::string> rows[] = {
      {false, request}, {false, echo}, {true, ""}, {true, longer}, {true, tooLong}};
  for (const auto& [isAdmitted, message] : rows) {
    RawChannel offender;
    ASSERT_TRUE(isAdmitted ? offender.enter() : offender.connect());
    offender.send(message);
    offender.send(request);
    offender.waitForCutOff();
  }
  EXPECT_TRUE(patient.send(echo) && patient.ping());
  // From another process, to get in and afterwards; and with descriptor 0 passed along.
  RawChannel borrowed;
  ASSERT_TRUE(borrowed.connect());
  echo = borrowed.responseToChallenge();
  if (fork() == 0) _exit(borrowed.send(echo) && other.send(request) ? 0 : 1);
  borrowed.waitForCutOff();
  other.waitForCutOff();
  EXPECT_GT(wait(nullptr), 0);
  iovec data{request.data(), request.size()};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  const msghdr message{nullptr, 0, &data, 1, control, sizeof control, 0};
  *CMSG_FIRSTHDR(&message) = {CMSG_LEN(sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
  EXPECT_GT(sendmsg(peer.socket.get(), &message, 0), 0);
  peer.waitForCutOff();

  expectWrites(0);
  while (patient.send(write(longestKey))) continue;  // until it is cut off, as it does not read
}

TEST_F(Channel, SilenceEndsAdmissionAndNothingAfterIt) {
  helper->timeToAdmit = std::chrono::milliseconds(500);
  RawChannel idle, silent;
  ASSERT_TRUE(idle.enter() && silent.connect());
  silent.waitForCutOff();
  EXPECT_TRUE(idle.ping());
}

TEST_F(Channel, OutstandingRepliesAreBoundedAndReachNobodyElse) {
  for (int i = 0; i <= maxOutstandingReplies; ++i) {
    peer.send(write("held"));
    other.send(write("held"));
  }
  expectWrites(2 * maxOutstandingReplies);
  other = RawChannel();  // and so its last request is dropped
  helper->answerHeld();
  expectWrites(2 * maxOutstandingReplies + 1);

  peer.send("malformed");
  peer.waitForCutOff();
  std::vector<RawChannel> next(8);  // had its descriptor been closed, one of these would have it
  for (const RawChannel& each : next) ASSERT_TRUE(each.enter());
  helper->answerHeld();
  for (const RawChannel& each : next) EXPECT_TRUE(each.ping());
}

TEST_F(Channel, PlacesInAdmissionAreBounded) {
  const std::vector<RawChannel> entering(maxConnectionsInAdmission - 1);
  for (const RawChannel& each : entering) ASSERT_TRUE(each.connect());
  const RawChannel last, tooMany;
  ASSERT_TRUE(last.connect() && tooMany.connect());
  EXPECT_FALSE(tooMany.receive());
  EXPECT_TRUE(last.send(last.responseToChallenge()) && last.ping());
}

}  // namespace
}  // namespace quorvane::xpc
