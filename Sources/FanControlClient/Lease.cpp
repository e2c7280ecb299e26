#include "FanControlClient/Lease.h"

#include <algorithm>
#include <utility>

#include "Platform/Clock.h"
#include "QRVFanShared/FanControlXPC.h"

namespace quorvane {
namespace {

using namespace std::chrono_literals;
using Duration = Lease::Duration;

constexpr std::chrono::seconds lease{FanControlConstants::leaseSeconds};
constexpr std::chrono::seconds maxManual{FanControlConstants::maxManualSeconds};
constexpr Duration renewalInterval = 5s;
constexpr Duration reconnectInterval = 1s;
/// How much earlier than the helper's cap we end, so as not to race it.
constexpr Duration handOverLead = 1s;
/// A forcing write that reached the helper after its cap would open a second period. A call is
/// answered or given up within replyTimeout, so the last one is over by the end of ours. What it
/// grants outlasts the period all the same.
constexpr Duration lastForceBeforeEnd = FanControlClient::replyTimeout;
static_assert(lastForceBeforeEnd + renewalInterval < lease);

std::string key(int fan, std::string_view suffix) {
  return std::string("F").append(std::to_string(fan)).append(suffix);
}

bool isForcedBy(const StatusReport& report, int fan) {
  for (const auto& [name, value] : report) {
    // A list of single digits: to find the digit is to find the fan.
    if (name == "forcedFans") return value.find(std::to_string(fan)) != std::string::npos;
  }
  return false;
}

}  // namespace

Lease::Lease(FanControlClient& toHelper, LeaseKeeper::Handler handler)
    : client(toHelper), tell(std::move(handler)) {}

void Lease::hold(int fan, std::int64_t rpm) {
  if (const auto held = fans.find(fan); held != fans.end()) {
    held->second.rpm = rpm;
    nextRenewal = monotonicTime();
    return;
  }
  if (fan < 0 || fan > 9) return tell(fan, FanEvent::refused, "a fan is a number from 0 to 9");
  // The helper may have restarted since, unnoticed.
  if (!(isConnected && client.ping()) && !reach()) {
    return tell(fan, FanEvent::refused, client.error());
  }
  // Taken ahead of the first write, so that our count is never behind the helper's.
  const Duration now = monotonicTime();
  if (fans.empty()) {
    periodEnd = now + maxManual - handOverLead;
    nextRenewal = now + renewalInterval;
    lastWrite = now;
  }
  // From here on it may be forced, whatever becomes of the reply.
  fans[fan] = Fan{rpm};
  if (force(fan, "Md", 1, /*isFloat=*/false)) forceTarget(fan);
}

void Lease::release(int fan) {
  if (fans.contains(fan)) giveBack(fan, FanEvent::givenBack, "as asked");
}

void Lease::releaseAll(FanEvent occasion) {
  const char* text = occasion == FanEvent::periodOver ? "at the end of its time" : "as asked";
  bool isReachable = true;
  while (!fans.empty()) {
    const int fan = fans.begin()->first;
    if (isReachable) {
      isReachable = giveBack(fan, occasion, text);
    } else {
      drop(fan, FanEvent::takenBack, leftToTheHelper());
    }
  }
}

std::optional<Duration> Lease::advance() {
  if (!fans.empty() && monotonicTime() >= periodEnd) releaseAll(FanEvent::periodOver);
  if (!fans.empty() && monotonicTime() >= nextRenewal) renew();
  if (fans.empty()) return std::nullopt;
  return std::min(nextRenewal, periodEnd);
}

Duration Lease::end() const {
  return lastWrite + lease;
}

void Lease::renew() {
  nextRenewal = monotonicTime() + renewalInterval;
  const std::map<int, Fan> held = fans;
  // At once after an interruption: on macOS it takes a call to have the helper started again, and
  // only then does it take back what it had forced.
  if (!isConnected && !reach()) nextRenewal = monotonicTime() + reconnectInterval;
  for (const auto& [fan, state] : held) {
    if (isConnected) renewFan(fan);
  }
  if (isConnected || monotonicTime() < end()) return;
  for (const auto& [fan, state] : held) {
    if (fans.contains(fan)) drop(fan, FanEvent::takenBack, "its lease ran out meanwhile");
  }
}

/// A forcing write for a fan that the helper or another client has put into automatic mode would
/// open a new period against their will. So the helper is asked first, as late as can be.
void Lease::renewFan(int fan) {
  if (isTooLateToForce()) return;
  const std::optional<StatusReport> report = client.status();
  if (!report) return lose();
  if (!isForcedBy(*report, fan)) {
    drop(fan, FanEvent::takenBack,
         "its lease ran out, or another client put it into automatic mode");
    return;
  }
  // Once more, for the answer may have taken long.
  if (!isTooLateToForce()) forceTarget(fan);
}

bool Lease::reach() {
  isConnected = client.connect();
  return isConnected;
}

void Lease::forceTarget(int fan) {
  if (!force(fan, "Tg", fans.at(fan).rpm, /*isFloat=*/true)) return;
  if (!std::exchange(fans.at(fan).isForced, true)) tell(fan, FanEvent::forced, "");
}

/// Renews the lease. When it is refused the fan is given back: it would be forced to whatever
/// speed was its target before.
bool Lease::force(int fan, std::string_view suffix, std::int64_t value, bool isFloat) {
  if (isTooLateToForce()) {
    giveBack(fan, FanEvent::periodOver, "the longest manual period is about to end");
    return false;
  }
  const Duration sent = monotonicTime();
  const std::optional<Outcome> outcome = client.writeFanKey(key(fan, suffix), value, isFloat);
  if (!outcome) {
    lose();
    return false;
  }
  if (!outcome->success) {
    giveBack(fan, FanEvent::refused, outcome->message.value_or("refused without a reason"));
    return false;
  }
  lastWrite = sent;
  return true;
}

/// Mode 0 of this fan and not restoreAuto, which would take their fans from other clients too.
/// False when the helper is gone.
bool Lease::giveBack(int fan, FanEvent occasion, const std::string& text) {
  std::optional<Outcome> outcome;
  const auto write = [&] { outcome = client.writeFanKey(key(fan, "Md"), 0, /*isFloat=*/false); };
  if (isConnected) write();
  if (!outcome && reach()) write();
  isConnected = outcome.has_value();
  if (!outcome) {
    drop(fan, FanEvent::takenBack, leftToTheHelper());
  } else if (!outcome->success) {
    drop(fan, FanEvent::refused, outcome->message.value_or(""));
  } else {
    drop(fan, occasion, text);
  }
  return isConnected;
}

void Lease::lose() {
  isConnected = false;
  nextRenewal = monotonicTime();
  const std::string reason = client.error();
  for (auto& [fan, state] : fans) {
    state.isForced = false;
    tell(fan, FanEvent::unreachable, reason);
  }
}

void Lease::drop(int fan, FanEvent event, const std::string& text) {
  fans.erase(fan);
  tell(fan, event, text);
}

bool Lease::isTooLateToForce() const {
  return monotonicTime() >= periodEnd - lastForceBeforeEnd;
}

std::string Lease::leftToTheHelper() const {
  return client.error() + "; if it is forced, the helper takes it back within " +
         std::to_string(lease.count()) + " seconds";
}

}  // namespace quorvane
