// The client over NSXPCConnection, compiled with ARC. Foundation delivers replies and errors on its
// own queue: in time, late, or never.
#include "FanControlClient/FanControlClient.h"

#import <Foundation/Foundation.h>
#include <dispatch/dispatch.h>

#include <atomic>
#include <map>
#include <utility>

#import "FanControlClient/Darwin/HelperConnection.h"
#import "Platform/Darwin/FanControlProtocol.h"

namespace quorvane {
namespace {

/// The result of one call: a reply, an error, or neither for a malformed reply. The blocks share
/// it, because the caller may give up before they run.
template <class Reply>
struct Pending {
  void settle(std::optional<Reply> given, NSError* _Nullable reason) {
    if (isSettled.test_and_set()) return;
    reply = std::move(given);
    error = reason;
    dispatch_semaphore_signal(settled);
  }
  [[nodiscard]] bool wait(std::chrono::nanoseconds timeout) const {
    return dispatch_semaphore_wait(settled, dispatch_time(DISPATCH_TIME_NOW, timeout.count())) == 0;
  }

  // Valid after a wait that did not time out.
  std::optional<Reply> reply;
  NSError* _Nullable error = nil;

 private:
  std::atomic_flag isSettled;
  dispatch_semaphore_t _Nonnull const settled = dispatch_semaphore_create(0);
};

template <class Reply>
using PendingRef = std::shared_ptr<Pending<Reply>>;

OutcomeBlock _Nonnull settling(const PendingRef<Outcome>& call) {
  const PendingRef<Outcome> pending = call;  // a block would capture the reference
  return ^(BOOL success, NSString* _Nullable message) {
    Outcome outcome{success == YES, std::nullopt};
    if (message != nil) outcome.message = xpc::fromNSString(message);
    pending->settle(std::move(outcome), nil);
  };
}

/// Returns the entries sorted by key, because a dictionary has no order. Returns nothing if a key
/// or a value is not text.
std::optional<StatusReport> reportFrom(NSDictionary* _Nullable status) {
  if (status == nil) return std::nullopt;
  std::map<std::string, std::string> entries;
  for (id key in status) {
    id const value = status[key];
    if (![key isKindOfClass:[NSString class]] || ![value isKindOfClass:[NSString class]]) {
      return std::nullopt;
    }
    entries.emplace(xpc::fromNSString(key), xpc::fromNSString(value));
  }
  return StatusReport(entries.begin(), entries.end());
}

}  // namespace

class FanControlClient::Implementation {
 public:
  ~Implementation() { disconnect(); }

  void disconnect() {
    [connection invalidate];
    connection = nil;
  }

  /// Calls `send`, which sends one message to the helper; the message's reply settles the call.
  template <class Reply, class Send>
  std::optional<Reply> call(const Send& send) {
    @autoreleasepool {
      if (connection == nil || *isOver) connect();
      const auto pending = std::make_shared<Pending<Reply>>();
      send([connection remoteObjectProxyWithErrorHandler:^(NSError* _Nonnull reason) {
             pending->settle(std::nullopt, reason);
           }],
           pending);
      if (!pending->wait(replyTimeout)) {
        return fail("the helper did not answer within " + std::to_string(replyTimeout.count()) +
                    " seconds");
      }
      if (pending->error != nil) return fail(reasonOf(pending->error));
      if (!pending->reply) return fail("the helper's answer is malformed");
      hasAnswered = true;
      return std::move(pending->reply);
    }
  }

  std::string error;

 private:
  void connect() {
    disconnect();
    hasAnswered = false;
    const auto over = std::make_shared<std::atomic<bool>>(false);
    isOver = over;
    connection = connectionToHelper();
    connection.remoteObjectInterface =
        [NSXPCInterface interfaceWithProtocol:@protocol(FanControlXPC)];
    connection.interruptionHandler = ^{
      *over = true;
    };
    connection.invalidationHandler = connection.interruptionHandler;
    [connection resume];
  }

  /// Closes the connection: every failure ends it.
  std::nullopt_t fail(std::string reason) {
    disconnect();
    error = std::move(reason);
    return std::nullopt;
  }

  /// macOS does not distinguish a helper that is not installed from one that refuses the client.
  [[nodiscard]] std::string reasonOf(NSError* _Nonnull reason) const {
    const char* text = hasAnswered ? "the helper closed the connection"
                                   : "the helper is not installed, or refused this client (is it "
                                     "signed?)";
    if (reason.code == NSXPCConnectionReplyInvalid) text = "the helper's answer is malformed";
    if (reason.code == NSXPCConnectionCodeSigningRequirementFailure) {
      text = "the helper is not signed as it has to be";
    }
    return std::string(text) + ": " + xpc::fromNSString(reason.localizedDescription);
  }

  NSXPCConnection* _Nullable connection = nil;
  /// Set on the connection's queue when it is interrupted or invalidated.
  std::shared_ptr<const std::atomic<bool>> isOver;
  bool hasAnswered = false;
};

FanControlClient::FanControlClient() : implementation(std::make_unique<Implementation>()) {}

FanControlClient::~FanControlClient() = default;

/// Only a reply shows that the helper has admitted this client.
bool FanControlClient::connect() {
  implementation->disconnect();
  return ping().has_value();
}

const std::string& FanControlClient::error() const {
  return implementation->error;
}

using Helper = id<FanControlXPC>;

std::optional<Outcome> FanControlClient::writeFanKey(const std::string& key, std::int64_t value,
                                                     bool isFloat) {
  return implementation->call<Outcome>([&](Helper helper, const PendingRef<Outcome>& pending) {
    [helper writeFanKey:xpc::toNSString(key) value:value isFloat:isFloat reply:settling(pending)];
  });
}

std::optional<Outcome> FanControlClient::restoreAuto() {
  return implementation->call<Outcome>([](Helper helper, const PendingRef<Outcome>& pending) {
    [helper restoreAutoWithReply:settling(pending)];
  });
}

std::optional<StatusReport> FanControlClient::status() {
  return implementation->call<StatusReport>([](Helper helper, PendingRef<StatusReport> pending) {
    [helper statusWithReply:^(NSDictionary<NSString*, NSString*>* _Nullable status) {
      pending->settle(reportFrom(status), nil);
    }];
  });
}

std::optional<std::string> FanControlClient::ping() {
  return implementation->call<std::string>([](Helper helper, PendingRef<std::string> pending) {
    [helper pingWithReply:^(NSString* _Nullable answer) {
      pending->settle(answer != nil ? std::optional(xpc::fromNSString(answer)) : std::nullopt, nil);
    }];
  });
}

}  // namespace quorvane
