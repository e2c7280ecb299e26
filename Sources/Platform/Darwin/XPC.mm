// The XPC facade over Foundation, compiled with ARC. Foundation calls it on the listener's thread
// and on each connection's thread. Replies are sent on the thread that gives them.
//
// Every function that Foundation calls, and every reply, is noexcept. Foundation would swallow an
// exception of either language and drop the message. Here the exception ends the process by
// std::terminate(), and the last resort restores the fans.
#import "Platform/Darwin/ListenerDelegate.h"

#include <cstddef>
#include <memory>
#include <optional>
#include <semaphore>
#include <string>
#include <string_view>
#include <utility>

#import "Platform/Darwin/FanControlProtocol.h"

namespace quorvane::xpc {
namespace {

template <class Call>
auto endingOnException(const Call& call) noexcept {
  return call();
}

/// The limit for one connection.
constexpr std::ptrdiff_t maxWaitingRequests = 64;
using Places = std::counting_semaphore<maxWaitingRequests>;
using Place = std::shared_ptr<Places>;

/// Blocks the calling thread, the connection's own, while `maxWaitingRequests` requests wait for
/// their reply. The last copy of the result gives the place back.
Place take(const std::shared_ptr<Places>& places) {
  places->acquire();
  return {places.get(), [places](Places* taken) { taken->release(); }};
}

// Dispatch drains its threads' autorelease pools at unspecified times, so replies use their own.

FanControlXPC::OutcomeReply outcomeReply(OutcomeBlock _Nullable reply, Place place) {
  return [reply, place = std::move(place)](bool success,
                                           const std::optional<std::string>& message) noexcept {
    @autoreleasepool {
      if (reply != nil) reply(success, message ? toNSString(*message) : nil);
    }
  };
}

FanControlXPC::StatusReply statusReply(StatusBlock _Nullable reply, Place place) {
  return [reply, place = std::move(place)](const StatusReport& status) noexcept {
    @autoreleasepool {
      NSMutableDictionary<NSString*, NSString*>* const dictionary =
          [[NSMutableDictionary alloc] init];
      for (const auto& [key, value] : status) dictionary[toNSString(key)] = toNSString(value);
      if (reply != nil) reply(dictionary);
    }
  };
}

FanControlXPC::PingReply pingReply(PingBlock _Nullable reply) {
  return [reply](const std::string& answer) noexcept {
    @autoreleasepool {
      if (reply != nil) reply(toNSString(answer));
    }
  };
}

}  // namespace
}  // namespace quorvane::xpc

/// The exported object. It passes Foundation's calls on to the C++ service.
@interface QRVExportedObject : NSObject <FanControlXPC>
- (nonnull instancetype)initWithService:(std::shared_ptr<quorvane::FanControlXPC>)exported;
@end

@implementation QRVExportedObject {
  std::shared_ptr<quorvane::FanControlXPC> service;
  std::shared_ptr<quorvane::xpc::Places> places;
}

- (instancetype)initWithService:(std::shared_ptr<quorvane::FanControlXPC>)exported {
  self = [super init];
  if (self != nil) {
    service = std::move(exported);
    places = std::make_shared<quorvane::xpc::Places>(quorvane::xpc::maxWaitingRequests);
  }
  return self;
}

- (void)writeFanKey:(NSString*)key
              value:(std::int64_t)value
            isFloat:(BOOL)isFloat
              reply:(OutcomeBlock)reply {
  quorvane::xpc::endingOnException([&] {
    service->writeFanKey(quorvane::xpc::fromNSString(key), value, isFloat,
                         quorvane::xpc::outcomeReply(reply, quorvane::xpc::take(places)));
  });
}

- (void)restoreAutoWithReply:(OutcomeBlock)reply {
  quorvane::xpc::endingOnException([&] {
    service->restoreAuto(quorvane::xpc::outcomeReply(reply, quorvane::xpc::take(places)));
  });
}

- (void)statusWithReply:(StatusBlock)reply {
  quorvane::xpc::endingOnException(
      [&] { service->status(quorvane::xpc::statusReply(reply, quorvane::xpc::take(places))); });
}

- (void)pingWithReply:(PingBlock)reply {
  quorvane::xpc::endingOnException([&] { service->ping(quorvane::xpc::pingReply(reply)); });
}

@end

namespace quorvane::xpc {
namespace {

/// The delegate's view of a connection. It lives only while the delegate decides.
class IncomingConnection final : public Connection {
 public:
  explicit IncomingConnection(NSXPCConnection* _Nonnull incoming) : native(incoming) {}

  /// The protocol is Foundation's form of the only interface.
  void setExportedInterface(Interface /*interface*/) override {
    native.exportedInterface = [NSXPCInterface interfaceWithProtocol:@protocol(FanControlXPC)];
  }

  void setExportedObject(std::shared_ptr<FanControlXPC> object) override {
    native.exportedObject = [[QRVExportedObject alloc] initWithService:std::move(object)];
  }

  /// Foundation raises an exception if it cannot parse the text.
  void setCodeSigningRequirement(std::string requirement) override {
    [native setCodeSigningRequirement:toNSString(requirement)];
    hasRequirement = true;
  }

  void resume() override {
    if (hasRequirement) [native resume];
  }

  /// Without a requirement, Foundation would admit anybody.
  [[nodiscard]] bool isGuarded() const { return hasRequirement; }

 private:
  NSXPCConnection* _Nonnull const native;
  bool hasRequirement = false;
};

}  // namespace
}  // namespace quorvane::xpc

@implementation QRVListenerDelegate {
  std::shared_ptr<quorvane::xpc::ListenerDelegate> delegate;
}

- (instancetype)initWithDelegate:
    (std::shared_ptr<quorvane::xpc::ListenerDelegate>)listenerDelegate {
  self = [super init];
  if (self != nil) delegate = std::move(listenerDelegate);
  return self;
}

- (BOOL)listener:(NSXPCListener*)listener shouldAcceptNewConnection:(NSXPCConnection*)incoming {
  return quorvane::xpc::endingOnException([&] {
    quorvane::xpc::IncomingConnection connection(incoming);
    return delegate->shouldAcceptNewConnection(connection) && connection.isGuarded();
  });
}

@end

namespace quorvane::xpc {

/// launchd hands a Mach service to one process only.
std::optional<std::string> claimMachService(const std::string& /*name*/) {
  return std::nullopt;
}

class Listener::Implementation {
 public:
  explicit Implementation(std::string_view machServiceName)
      : listener([[NSXPCListener alloc] initWithMachServiceName:toNSString(machServiceName)]) {}

  void setDelegate(std::shared_ptr<ListenerDelegate> listenerDelegate) {
    delegate = [[QRVListenerDelegate alloc] initWithDelegate:std::move(listenerDelegate)];
    listener.delegate = delegate;
  }

  void resume() const { [listener resume]; }

 private:
  NSXPCListener* _Nonnull const listener;
  /// The listener does not own its delegate.
  QRVListenerDelegate* _Nullable delegate = nil;
};

Listener::Listener(std::string machServiceName)
    : implementation(std::make_unique<Implementation>(machServiceName)) {}

Listener::~Listener() = default;

void Listener::setDelegate(std::shared_ptr<ListenerDelegate> delegate) {
  implementation->setDelegate(std::move(delegate));
}

/// Foundation reports no failure. A name unknown to launchd is an error of the installation.
std::optional<std::string> Listener::resume() {
  implementation->resume();
  return std::nullopt;
}

}  // namespace quorvane::xpc
