// The facade and the client through the real Foundation: an anonymous listener and its connections
// in this one process, which is signed ad hoc with an identifier. Only the exported object and the
// way to the listener are stand-ins.
#include <gtest/gtest.h>

#include <condition_variable>
#include <future>
#include <mutex>

#import "FanControlClient/Darwin/HelperConnection.h"
#include "FanControlClient/FanControlClient.h"
#import "Platform/Darwin/FanControlProtocol.h"
#import "Platform/Darwin/ListenerDelegate.h"

/// The facade's delegate, with the last connection to be seen.
@interface QRVWitness : QRVListenerDelegate
@property(nullable, retain) NSXPCConnection* incoming;
@end

@implementation QRVWitness
- (BOOL)listener:(NSXPCListener*)listener shouldAcceptNewConnection:(NSXPCConnection*)incoming {
  self.incoming = incoming;
  return [super listener:listener shouldAcceptNewConnection:incoming];
}
@end

namespace quorvane {
namespace {

const std::string ours = "identifier \"XPCFacadeTests\"", another = "identifier \"another\"";

NSXPCListenerEndpoint* endpoint = nil;
std::string demanded;  // of the helper

/// The exported object and the C++ delegate. Answers a write of the key "held" when the test says
/// so.
struct Helper final : FanControlXPC, xpc::ListenerDelegate, std::enable_shared_from_this<Helper> {
  void writeFanKey(std::string key, std::int64_t value, bool isFloat, OutcomeReply reply) override {
    const std::lock_guard lock(mutex);
    if (key != "held") return reply(isFloat && value == INT64_MIN, std::move(key));
    held.push_back(std::move(reply));
    changed.notify_all();
  }
  void restoreAuto(OutcomeReply reply) override { reply(true, std::nullopt); }
  void status(StatusReply reply) override { reply({{"b", "\u20AC"}, {"a", ""}}); }
  void ping(PingReply reply) override { reply(++pings > 0 ? "ok" : ""); }
  bool shouldAcceptNewConnection(xpc::Connection& connection) override {
    connection.setExportedInterface(xpc::Interface::fanControl);
    connection.setExportedObject(shared_from_this());
    if (!requirement.empty()) connection.setCodeSigningRequirement(requirement);
    connection.resume();
    return true;
  }

  bool holds(std::size_t count) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, std::chrono::seconds(10), [&] { return held.size() == count; });
  }
  void answerHeld() {
    const std::lock_guard lock(mutex);
    for (const OutcomeReply& reply : std::exchange(held, {})) reply(true, std::nullopt);
  }

  std::string requirement = ours;
  std::atomic<int> pings = 0;
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<OutcomeReply> held;
};

struct XPCFacade : testing::Test {
  XPCFacade() {
    listener.delegate = delegate;
    [listener resume];
    endpoint = listener.endpoint;
    demanded = ours;
  }

  const std::shared_ptr<Helper> helper = std::make_shared<Helper>();
  QRVWitness* const delegate = [[QRVWitness alloc] initWithDelegate:helper];
  NSXPCListener* const listener = [NSXPCListener anonymousListener];
  FanControlClient client;
};

TEST_F(XPCFacade, TheFourOperationsCarryWhatIsThereAndWhatIsNot) {
  ASSERT_TRUE(client.connect()) << client.error();
  auto outcome = client.writeFanKey("F0\u20AC", INT64_MIN, true);
  EXPECT_TRUE(outcome && outcome->success && outcome->message == "F0\u20AC") << client.error();
  outcome = client.writeFanKey("\xFF", INT64_MAX, true);  // a key that crosses as nil
  EXPECT_TRUE(outcome && !outcome->success && outcome->message == "") << client.error();
  outcome = client.restoreAuto();
  EXPECT_TRUE(outcome && outcome->success && !outcome->message) << client.error();
  EXPECT_EQ(client.status(), (StatusReport{{"a", ""}, {"b", "\u20AC"}})) << client.error();
  EXPECT_EQ(client.ping(), "ok") << client.error();

  const id<FanControlXPC> exported = delegate.incoming.exportedObject;
  [exported restoreAutoWithReply:nil];
  [exported statusWithReply:nil];
  [exported pingWithReply:nil];
  const unichar half = 0xD800;
  NSString* const key = [NSString stringWithCharacters:&half length:1];
  [exported writeFanKey:key value:0 isFloat:NO reply:nil];
  __block std::string said;
  [exported writeFanKey:key
                  value:0
                isFloat:NO
                  reply:^(BOOL, NSString* message) {
                    said = xpc::fromNSString(message);
                  }];
  EXPECT_EQ(said, "\uFFFD");
}

TEST_F(XPCFacade, EachEndRefusesAnotherSignature) {
  for (const auto& [ofClient, ofHelper] : {std::pair{another, ours}, {"", ours}, {ours, another}}) {
    helper->requirement = ofClient;
    demanded = ofHelper;
    EXPECT_FALSE(client.connect()) << ofClient << ", " << ofHelper;
    EXPECT_TRUE(helper->pings == 0 || ofClient == ours) << ofClient;
  }
}

TEST_F(XPCFacade, AConnectionThatEndsIsReplacedAtTheNextCall) {
  ASSERT_TRUE(client.connect()) << client.error();
  auto call = std::async([this] { return client.writeFanKey("held", 1, false); });
  ASSERT_TRUE(helper->holds(1));
  [delegate.incoming invalidate];
  EXPECT_FALSE(call.get());
  helper->answerHeld();  // to nobody
  EXPECT_EQ(client.ping(), "ok") << client.error();
}

TEST_F(XPCFacade, WaitingRequestsOfAConnectionAreBounded) {
  NSXPCConnection* const peer = connectionToHelper();
  peer.remoteObjectInterface = [NSXPCInterface interfaceWithProtocol:@protocol(FanControlXPC)];
  [peer resume];
  const id<FanControlXPC> proxy = peer.remoteObjectProxy;
  for (int i = 0; i < 65; ++i)
    [proxy writeFanKey:@"held"
                 value:1
               isFloat:NO
                 reply:^(BOOL, id){
                 }];
  ASSERT_TRUE(helper->holds(64));
  for (int i = 0; i < 300; ++i) ASSERT_EQ(client.ping(), "ok") << client.error();
  ASSERT_TRUE(helper->holds(64)) << "the last one waits";
  helper->answerHeld();
  EXPECT_TRUE(helper->holds(1));
  helper->answerHeld();
  [peer invalidate];
}

}  // namespace

/// In the place of the client's own.
NSXPCConnection* connectionToHelper() {
  NSXPCConnection* const connection = [[NSXPCConnection alloc] initWithListenerEndpoint:endpoint];
  [connection setCodeSigningRequirement:xpc::toNSString(demanded)];
  return connection;
}

}  // namespace quorvane
