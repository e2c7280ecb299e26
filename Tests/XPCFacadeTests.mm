// The facade and the client through the real Foundation: an anonymous listener and its connections
// in this one process, which is signed ad hoc with an identifier. Only the exported object and the
// way to the listener are stand-ins.
#include <gtest/gtest.h>

#include <future>

#import "FanControlClient/Darwin/HelperConnection.h"
#include "FanControlClient/FanControlClient.h"
#import "Platform/Darwin/FanControlProtocol.h"
#import "Platform/Darwin/ListenerDelegate.h"
#include "Support/Await.h"
#include "Support/ExportedObject.h"

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

/// The exported object and the C++ delegate.
struct Helper final : ExportedObject, xpc::ListenerDelegate, std::enable_shared_from_this<Helper> {
  bool shouldAcceptNewConnection(xpc::Connection& connection) override {
    connection.setExportedInterface(xpc::Interface::fanControl);
    connection.setExportedObject(shared_from_this());
    if (!requirement.empty()) connection.setCodeSigningRequirement(requirement);
    connection.resume();
    return true;
  }

  std::string requirement = ours;
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
  EXPECT_EQ(describe(client.writeFanKey("F0\u20AC", INT64_MIN, true)), "true F0\u20AC");
  // A key that crosses as nil.
  EXPECT_EQ(describe(client.writeFanKey("\xFF", INT64_MAX, true)), "false ");
  EXPECT_EQ(describe(client.restoreAuto()), "true");
  EXPECT_EQ(client.status(), (StatusReport{{"a", ""}, {"b", "\u20AC"}}));
  EXPECT_EQ(client.ping(), "ok");
}

// Whoever calls need not ask for a reply.
TEST_F(XPCFacade, ReplyBlocksMayBeNil) {
  ASSERT_TRUE(client.connect()) << client.error();
  const id<FanControlXPC> exported = delegate.incoming.exportedObject;
  [exported restoreAutoWithReply:nil];
  [exported statusWithReply:nil];
  [exported pingWithReply:nil];
  [exported writeFanKey:@"" value:0 isFloat:NO reply:nil];
  EXPECT_EQ(helper->writes, 1);
}

TEST_F(XPCFacade, EachEndRefusesAnotherSignature) {
  for (const auto& [ofClient, ofHelper] : {std::pair{another, ours}, {"", ours}, {ours, another}}) {
    helper->requirement = ofClient;
    demanded = ofHelper;
    EXPECT_FALSE(client.connect()) << ofClient << ", " << ofHelper;
    if (ofClient != ours) EXPECT_EQ(helper->pings, 0) << ofClient;
  }
}

TEST_F(XPCFacade, AConnectionThatEndsIsReplacedAtTheNextCall) {
  ASSERT_TRUE(client.connect()) << client.error();
  auto call = std::async([this] { return client.writeFanKey("held", 1, false); });
  test::await("write", [this] { return helper->writes == 1; });
  [delegate.incoming invalidate];
  EXPECT_EQ(describe(call.get()), "no reply");
  helper->answerHeld();  // to nobody
  EXPECT_EQ(client.ping(), "ok") << client.error();
}

TEST_F(XPCFacade, WaitingRequestsOfAConnectionAreBounded) {
  NSXPCConnection* const peer = connectionToHelper();
  peer.remoteObjectInterface = [NSXPCInterface interfaceWithProtocol:@protocol(FanControlXPC)];
  [peer resume];
  const id<FanControlXPC> proxy = peer.remoteObjectProxy;
  const auto ignoreReply = ^(BOOL, NSString*) {
  };
  for (int i = 0; i < 65; ++i) [proxy writeFanKey:@"held" value:1 isFloat:NO reply:ignoreReply];
  test::await("64 writes", [this] { return helper->writes == 64; });
  for (int i = 0; i < 300; ++i) ASSERT_EQ(client.ping(), "ok") << client.error();
  EXPECT_EQ(helper->writes, 64) << "the last one waits";
  helper->answerHeld();
  test::await("the last write", [this] { return helper->writes == 65; });
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
