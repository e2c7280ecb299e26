// The facade and the client through the real Foundation: an anonymous listener and its connections
// in one process, which is signed ad hoc with an identifier. Only the exported object and
// connectionToHelper() are fakes.
#include <gtest/gtest.h>

#include <future>

#import "FanControlClient/Darwin/HelperConnection.h"
#include "FanControlClient/FanControlClient.h"
#import "Platform/Darwin/FanControlProtocol.h"
#import "Platform/Darwin/ListenerDelegate.h"
#include "Support/Await.h"
#include "Support/ExportedObject.h"

/// The facade's delegate. It also keeps the last incoming connection.
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
std::string demanded;  // the client's requirement on the helper

struct XPCFacade : testing::Test {
  XPCFacade() {
    listener.delegate = delegate;
    [listener resume];
    endpoint = listener.endpoint;
    helper->requirement = ours;
    demanded = ours;
  }

  const std::shared_ptr<ExportedObject> helper = std::make_shared<ExportedObject>();
  QRVWitness* const delegate = [[QRVWitness alloc] initWithDelegate:helper];
  NSXPCListener* const listener = [NSXPCListener anonymousListener];
  FanControlClient client;
};

TEST_F(XPCFacade, TheFourOperationsCarryWhatIsThereAndWhatIsNot) {
  ASSERT_TRUE(client.connect()) << client.error();
  EXPECT_EQ(describe(client.writeFanKey("F0\u20AC", INT64_MIN, true)), "true F0\u20AC");
  // A key that is not UTF-8 crosses as nil.
  EXPECT_EQ(describe(client.writeFanKey("\xFF", INT64_MAX, true)), "false ");
  EXPECT_EQ(describe(client.restoreAuto()), "true");
  EXPECT_EQ(client.status(), (StatusReport{{"a", ""}, {"b", "\u20AC"}}));
}

TEST_F(XPCFacade, EachEndRefusesAnotherSignature) {
  demanded = another;
  EXPECT_FALSE(client.connect());
  demanded = ours;
  helper->requirement = another;
  EXPECT_FALSE(client.connect());
  helper->missing = Missing::requirement;
  EXPECT_FALSE(client.connect());
}

TEST_F(XPCFacade, AConnectionThatEndsIsReplacedAtTheNextCall) {
  ASSERT_TRUE(client.connect()) << client.error();
  auto call = std::async([this] { return client.writeFanKey("held", 1, false); });
  test::await("write", [this] { return helper->writes == 1; });
  [delegate.incoming invalidate];
  EXPECT_EQ(describe(call.get()), "no reply");
  helper->answerHeld();  // its connection has ended
  EXPECT_EQ(client.ping(), "ok") << client.error();
}

// A caller may pass nil as the reply block.
TEST_F(XPCFacade, RequestsWaitForAPlaceAndMayHaveNoReplyBlock) {
  ASSERT_TRUE(client.connect()) << client.error();
  const id<FanControlXPC> exported = delegate.incoming.exportedObject;
  [exported restoreAutoWithReply:nil];
  [exported statusWithReply:nil];
  [exported pingWithReply:nil];
  const auto requests = std::async([exported] {
    for (int i = 0; i < 65; ++i) [exported writeFanKey:@"held" value:1 isFloat:NO reply:nil];
  });
  test::await("64 writes", [this] { return helper->writes == 64; });
  for (int i = 0; i < 300; ++i) EXPECT_EQ(client.ping(), "ok") << client.error();
  EXPECT_EQ(helper->writes, 64) << "the last one waits";
  helper->answerHeld();
  test::await("the last write", [this] { return helper->writes == 65; });
  helper->answerHeld();
}

}  // namespace

/// Replaces the client's function.
NSXPCConnection* connectionToHelper() {
  NSXPCConnection* const connection = [[NSXPCConnection alloc] initWithListenerEndpoint:endpoint];
  [connection setCodeSigningRequirement:xpc::toNSString(demanded)];
  return connection;
}

}  // namespace quorvane
