// The whole channel in one process: the real listener, connections and client, real sockets and
// threads. Only the exported object and the judgement on signatures are stand-ins.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <list>
#include <mutex>

#include "FanControlClient/FanControlClient.h"
#include "Platform/Linux/XPC/Connection.h"
#include "Platform/Linux/XPC/PeerIdentity.h"
#include "Platform/XPC.h"
#include "Support/RawChannel.h"

namespace quorvane::xpc {

std::atomic<bool> peersAreSigned = true;

bool satisfiesRequirement(int executable, std::string_view requirement) {
  return fcntl(executable, F_GETFD) == FD_CLOEXEC && requirement == "signed" && peersAreSigned;
}

namespace {

using std::chrono_literals::operator""s;
using std::chrono_literals::operator""ms;
using test::RawChannel;

const std::string name = FanControlConstants::helperMachService;
const XPCOperation& writeOperation = fanControlOperations[0];
const StatusReport report{{"version", "1.0.0"}, {"forcedFans", "0,3"}, {"model", ""}};

/// Answers at once, but writes, once hold() was called, only when the test does.
class FakeHelper final : public FanControlXPC {
 public:
  void writeFanKey(std::string key, std::int64_t value, bool isFloat, OutcomeReply reply) override {
    const std::lock_guard lock(mutex);
    written.push_back(key + "=" + std::to_string(value) + (isFloat ? " float" : ""));
    if (!isHolding) {
      return reply(key == "F0Tg", key == "F0Tg" ? std::nullopt : std::optional("Refused: " + key));
    }
    held.push_back(std::move(reply));
    changed.notify_all();
  }
  void restoreAuto(OutcomeReply reply) override { reply(true, std::nullopt); }
  void status(StatusReply reply) override { reply(report); }
  void ping(PingReply reply) override { reply("ok"); }

  void hold() { isHolding = true; }
  /// Waits for that many held replies and hands them over.
  std::list<OutcomeReply> takeHeld(int count) {
    std::unique_lock lock(mutex);
    EXPECT_TRUE(changed.wait_for(lock, 10s, [&] { return std::ssize(held) >= count; }));
    return std::exchange(held, {});
  }
  std::vector<std::string> writes() {
    const std::lock_guard lock(mutex);
    return written;
  }

 private:
  std::mutex mutex;
  std::condition_variable changed;
  std::list<OutcomeReply> held;
  std::vector<std::string> written;
  std::atomic<bool> isHolding = false;
};

class Delegate final : public ListenerDelegate {
 public:
  explicit Delegate(std::shared_ptr<FanControlXPC> object) : exported(std::move(object)) {}
  bool shouldAcceptNewConnection(Connection& connection) override {
    connection.setExportedInterface({fanControlOperations});
    connection.setExportedObject(exported);
    if (setsRequirement) connection.setCodeSigningRequirement("signed");
    if (resumes) connection.resume();
    return accepts;
  }
  std::atomic<bool> setsRequirement = true, resumes = true, accepts = true;

 private:
  std::shared_ptr<FanControlXPC> exported;
};

class Channel : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    std::string pattern = std::filesystem::temp_directory_path() / "channel-XXXXXX";
    setenv("QUORVANE_ROOT", mkdtemp(pattern.data()), 1);
  }
  static void TearDownTestSuite() { std::filesystem::remove_all(getenv("QUORVANE_ROOT")); }

  void SetUp() override {
    listener.setDelegate(delegate);
    ASSERT_EQ(claimMachService(name), std::nullopt);
    ASSERT_EQ(listener.resume(), std::nullopt);
    ASSERT_TRUE(witness.enter());
  }
  /// Whatever an offender did, who behaves is served.
  void TearDown() override { EXPECT_EQ(witness.ping(), "ok"); }

  /// Time for others to do what they must not.
  void keepWitnessBusy() {
    for (int i = 0; i < 300; ++i) ASSERT_EQ(witness.ping(), "ok");
  }
  static std::string write(std::uint32_t call, Value key = std::string("F0Tg")) {
    const Value arguments[] = {std::move(key), std::int64_t{2500}, false};
    return encodeRequest(call, writeOperation.selector, arguments);
  }
  /// The call number of the next reply to a write.
  static std::optional<std::uint32_t> nextReply(RawChannel& channel) {
    const auto reply = decodeReply(channel.receive().value_or(""), writeOperation.reply);
    return reply ? std::optional(reply->callNumber) : std::nullopt;
  }

  std::shared_ptr<FakeHelper> helper = std::make_shared<FakeHelper>();
  std::shared_ptr<Delegate> delegate = std::make_shared<Delegate>(helper);
  Listener listener{name};
  RawChannel witness;
};

TEST_F(Channel, ClientCallsEveryOperation) {
  const std::string longKey(60'000, 'k');
  FanControlClient client;
  ASSERT_TRUE(client.connect()) << client.error();
  const auto done = client.writeFanKey("F0Tg", -1, true);
  ASSERT_TRUE(done && done->success && !done->message);
  const auto refused = client.writeFanKey(longKey, 2500, false);
  ASSERT_TRUE(refused && !refused->success);
  EXPECT_EQ(refused->message, "Refused: " + longKey);
  EXPECT_TRUE(client.restoreAuto().value().success);
  EXPECT_EQ(client.status(), report);
  EXPECT_EQ(client.ping(), "ok");

  witness.send(write(9, /*key=*/Value()));
  EXPECT_EQ(nextReply(witness), 9U);
  EXPECT_EQ(helper->writes(),
            (std::vector<std::string>{"F0Tg=-1 float", longKey + "=2500", "=2500"}));
}

TEST_F(Channel, ClientSaysWhyItIsNotServed) {
  FanControlClient client;
  for (std::atomic<bool>* consent :
       {&peersAreSigned, &delegate->setsRequirement, &delegate->resumes, &delegate->accepts}) {
    *consent = false;
    EXPECT_FALSE(client.connect());
    EXPECT_EQ(client.error(), "the helper refused this client (is it signed?)");
    *consent = true;
  }
  ASSERT_TRUE(client.connect()) << client.error();
  EXPECT_EQ(client.writeFanKey(std::string(maxRequestSize, 'k'), 0, false), std::nullopt);
  EXPECT_EQ(client.error(), "the request is too long");
  EXPECT_EQ(client.ping(), std::nullopt);
  EXPECT_EQ(client.error(), "not connected to the helper");

  const std::string path = machServiceSocketPath(name);
  ASSERT_EQ(unlink(path.c_str()), 0);
  EXPECT_FALSE(client.connect());
  EXPECT_EQ(client.error(), "the helper is not running (" + path + ": No such file or directory)");
}

TEST_F(Channel, MalformedRequestEndsOnlyItsConnection) {
  for (const std::string& bytes :
       {std::string(), write(1).substr(0, 20), write(1) + "x",
        write(1, std::string(maxRequestSize, 'k')), encodeRequest(1, "reboot", {}),
        encodeRequest(1, writeOperation.selector, {}), encodeReply(1, {}),
        encodeNonce(MessageKind::challengeResponse, {})}) {
    RawChannel offender;
    ASSERT_TRUE(offender.enter());
    offender.send(bytes);
    offender.send(write(2));
    offender.waitForCutOff();
    EXPECT_EQ(witness.ping(), "ok");
  }
  EXPECT_TRUE(helper->writes().empty());
}

TEST_F(Channel, OnlyTheEchoOpensTheWay) {
  RawChannel hasty, wrong, stale, eager;
  ASSERT_TRUE(hasty.connect() && wrong.connect() && stale.connect() && eager.connect());
  hasty.send(write(1));
  hasty.send(hasty.responseToChallenge());
  hasty.waitForCutOff();

  std::string response = wrong.responseToChallenge();
  response.back() = static_cast<char>(response.back() ^ 1);
  wrong.send(response);
  wrong.send(write(1));
  wrong.waitForCutOff();

  response = eager.responseToChallenge();
  ASSERT_NE(stale.responseToChallenge(), response) << "each connection has its own";
  stale.send(response);
  stale.send(write(1));
  stale.waitForCutOff();
  EXPECT_TRUE(helper->writes().empty());

  eager.send(response);
  for (std::uint32_t call = 1; call <= 3; ++call) eager.send(write(call));
  for (std::uint32_t call = 1; call <= 3; ++call) EXPECT_EQ(nextReply(eager), call);
}

/// Two ends of one connection; the first learns when nobody has the second any more.
std::pair<RawChannel, Descriptor> makePair() {
  int ends[2] = {-1, -1};
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
  return {RawChannel(Descriptor(ends[0])), Descriptor(ends[1])};
}

TEST_F(Channel, DescriptorOrOtherSenderEndsTheConnection) {
  const auto sendFromChild = [](RawChannel& channel, const std::string& message) {
    const pid_t child = fork();
    if (child == 0) _exit(::send(channel.descriptor(), message.data(), message.size(), 0) < 0);
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  };
  for (const bool isAdmitted : {false, true}) {
    auto [watch, passed] = makePair();
    RawChannel passing, forking;
    ASSERT_TRUE(isAdmitted ? passing.enter() && forking.enter()
                           : passing.connect() && forking.connect());
    passing.send(isAdmitted ? write(1) : passing.responseToChallenge(), passed.get());
    passing.waitForCutOff();
    passed = Descriptor();
    watch.waitForCutOff();
    sendFromChild(forking, isAdmitted ? write(1) : forking.responseToChallenge());
    forking.waitForCutOff();
  }
  EXPECT_TRUE(helper->writes().empty());
}

TEST_F(Channel, SilenceAndMissingCredentialsEndTheConnection) {
  const auto serveDirectly = [&](int passesCredentials) {
    auto [peer, served] = makePair();
    setsockopt(served.get(), SOL_SOCKET, SO_PASSCRED, &passesCredentials, sizeof passesCredentials);
    startServing(std::move(served), std::make_shared<Places>(1)->take(),
                 std::make_shared<Places>(1),
                 {{fanControlOperations}, helper, "signed", /*timeToAdmit=*/50ms});
    return std::move(peer);
  };
  RawChannel idle = serveDirectly(1);
  EXPECT_TRUE(idle.send(idle.responseToChallenge()) && idle.ping());
  // Twice, so that the deadline of the idle one is surely past.
  for (int i = 0; i < 2; ++i) {
    RawChannel silent = serveDirectly(1);
    EXPECT_FALSE(silent.responseToChallenge().empty());
    silent.waitForCutOff();
  }
  EXPECT_EQ(idle.ping(), "ok") << "the deadline ends with admission";

  // Without credentials in front of it, a descriptor finds room in the control buffer.
  auto [watch, passed] = makePair();
  RawChannel unknown = serveDirectly(0);
  unknown.send(unknown.responseToChallenge(), passed.get());
  unknown.waitForCutOff();
  passed = Descriptor();
  watch.waitForCutOff();
}

TEST_F(Channel, ReadingStopsAtTheOutstandingLimit) {
  helper->hold();
  RawChannel busy;
  ASSERT_TRUE(busy.enter());
  for (std::uint32_t call = 1; call < maxOutstandingReplies; ++call) busy.send(write(call));
  auto replies = helper->takeHeld(maxOutstandingReplies - 1);
  EXPECT_EQ(busy.ping(), "ok") << "a ping is not owed for long";
  busy.send(write(maxOutstandingReplies));
  replies.splice(replies.end(), helper->takeHeld(1));

  busy.send(write(0));
  keepWitnessBusy();
  EXPECT_EQ(helper->writes().size(), maxOutstandingReplies);
  replies.front()(true, std::nullopt);
  replies.splice(replies.end(), helper->takeHeld(1));
  EXPECT_EQ(nextReply(busy), 1U);

  // A second answer counts for nothing; a reply that nobody can give any more is not waited for.
  busy.send(write(0));
  replies.front()(false, "again");
  keepWitnessBusy();
  EXPECT_EQ(helper->writes().size(), maxOutstandingReplies + 1);
  replies.resize(2);
  helper->takeHeld(1);
  EXPECT_EQ(busy.ping(), "ok");
}

TEST_F(Channel, LateReplyReachesNobodyElse) {
  helper->hold();
  RawChannel dying;
  ASSERT_TRUE(dying.enter());
  dying.send(write(1));
  dying.send("malformed");
  dying.waitForCutOff();
  // Had its descriptor been closed, one of these would have it now.
  std::list<RawChannel> others(8);
  for (RawChannel& other : others) ASSERT_TRUE(other.enter());
  helper->takeHeld(1).front()(true, std::nullopt);
  for (RawChannel& other : others) EXPECT_EQ(other.ping(), "ok");
}

TEST_F(Channel, CutOffDropsWhatIsStillQueued) {
  helper->hold();
  RawChannel dying;
  ASSERT_TRUE(dying.enter());
  for (std::uint32_t call = 0; call <= maxOutstandingReplies; ++call) dying.send(write(call));
  const auto replies = helper->takeHeld(maxOutstandingReplies);
  dying = RawChannel();
  for (const auto& reply : replies) reply(true, std::nullopt);
  keepWitnessBusy();
  EXPECT_EQ(helper->writes().size(), maxOutstandingReplies);
}

TEST_F(Channel, ClientThatDoesNotReadIsCutOff) {
  RawChannel deaf;
  ASSERT_TRUE(deaf.enter());
  int sent = 0;
  while (sent < 1000 && deaf.send(write(1, std::string(60'000, 'k')))) ++sent;
  EXPECT_LT(sent, 1000);
}

TEST_F(Channel, PlacesForConnectionsAreBounded) {
  std::list<std::pair<RawChannel, std::string>> entering(maxConnectionsInAdmission);
  for (auto& [channel, response] : entering) {
    ASSERT_TRUE(channel.connect());
    response = channel.responseToChallenge();
  }
  RawChannel tooMany;
  EXPECT_TRUE(tooMany.connect());
  EXPECT_EQ(tooMany.receive(), std::nullopt);

  for (auto& [channel, response] : entering) {
    channel.send(response);
    EXPECT_EQ(channel.ping(), "ok");
  }
  std::list<RawChannel> further(maxAdmittedConnections - maxConnectionsInAdmission - 1);
  for (RawChannel& each : further) ASSERT_TRUE(each.enter());
  EXPECT_FALSE(RawChannel().enter()) << "with the witness one past the limit";

  // Places come back, those of who was turned away included, as soon as their threads are done.
  further.pop_back();
  const auto deadline = std::chrono::steady_clock::now() + 10s;
  while (!RawChannel().enter()) ASSERT_LT(std::chrono::steady_clock::now(), deadline);
}

TEST_F(Channel, ClientIsTurnedAwayWhenDescriptorsRunOut) {
  RawChannel unexamined, turnedAway, next;
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const int firstFree = Descriptor(open("/dev/null", O_RDONLY | O_CLOEXEC)).get();
  const rlimit none{static_cast<rlim_t>(firstFree), before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  // The listener waits with a descriptor in hand for the first client, and with its reserve only
  // for the second. Nothing is asserted meanwhile: the sanitizers want descriptors for that.
  bool isServed = false;
  for (RawChannel* each : {&unexamined, &turnedAway}) {
    isServed = !each->connect() || each->receive() || isServed;
  }
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_FALSE(isServed);
  EXPECT_TRUE(next.enter());
}

TEST_F(Channel, RendezvousIsOpenToAllAndItsLockToOneProcess) {
  const std::string path = machServiceSocketPath(name);
  const auto modeOf = [](const std::string& file) {
    struct stat status {};
    EXPECT_EQ(stat(file.c_str(), &status), 0);
    return status.st_mode;
  };
  EXPECT_EQ(modeOf(path), mode_t{S_IFSOCK | 0666});
  EXPECT_EQ(modeOf(path + ".lock"), mode_t{S_IFREG | 0600});
  EXPECT_EQ(modeOf(std::filesystem::path(path).parent_path()), mode_t{S_IFDIR | 0755});

  const std::string other = machServiceSocketPath("other");
  std::ofstream(other) << "left behind";
  Descriptor foreign(open((other + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  ASSERT_EQ(flock(foreign.get(), LOCK_EX), 0);
  EXPECT_EQ(claimMachService("other"), "another process serves other");
  foreign = Descriptor();
  EXPECT_EQ(claimMachService("other"), std::nullopt);
  EXPECT_EQ(Listener("other").resume(), std::nullopt);

  // Any other obstacle is the listener's to tell.
  const std::string blocked = machServiceSocketPath("blocked") + ".lock";
  std::filesystem::create_directory(blocked);
  const std::string endless(120, 'n');
  EXPECT_EQ(claimMachService("blocked"), std::nullopt);
  EXPECT_EQ(claimMachService(endless), std::nullopt);
  EXPECT_EQ(Listener("blocked").resume(), "cannot open " + blocked + ": Is a directory");
  EXPECT_EQ(Listener(endless).resume(),
            "the path is too long for a socket: " + machServiceSocketPath(endless));
}

}  // namespace
}  // namespace quorvane::xpc
