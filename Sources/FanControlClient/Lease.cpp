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
/// How long before the helper's cap the keeper gives back, so that the two do not race.
constexpr Duration handOverLead = 1s;
/// A forcing write that reaches the helper after its cap opens a second period. A call ends within
/// replyTimeout, so the last forcing write ends before this period does. Its lease outlasts the
/// period.
constexpr Duration lastForceBeforeEnd = FanControlClient::replyTimeout;
static_assert(lastForceBeforeEnd + renewalInterval < lease);

std::string key(int fan, std::string_view suffix) {
  return std::string("F").append(std::to_string(fan)).append(suffix);
}

bool isForcedBy(const StatusReport& report, int fan) {
  for (const auto& [name, value] : report) {
    // The list holds single digits, so a found digit is a found fan.
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
  // The helper may have restarted unnoticed.
  if (!(isConnected && client.ping()) && !reach()) {
    return tell(fan, FanEvent::refused, client.error());
  }
  // Taken before the first write, so that this period never ends after the helper's.
  const Duration now = monotonicTime();
  if (fans.empty()) {
    periodEnd = now + maxManual - handOverLead;
    nextRenewal = now + renewalInterval;
    lastWrite = now;
  }
  // From here on the fan may be forced, whether or not a reply arrives.
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
  // Reconnects immediately after an interruption. On macOS only a call starts the helper again, and
  // its start restores the fans that it had forced.
  if (!isConnected && !reach()) nextRenewal = monotonicTime() + reconnectInterval;
  for (const auto& [fan, state] : held) {
    if (isConnected) renewFan(fan);
  }
  if (isConnected || monotonicTime() < end()) return;
  for (const auto& [fan, state] : held) {
    if (fans.contains(fan)) drop(fan, FanEvent::takenBack, "its lease ran out meanwhile");
  }
}

/// If the helper or another client has put the fan into automatic mode, a forcing write would open
/// a new period against their decision. So this asks the helper first, as late as possible.
void Lease::renewFan(int fan) {
  if (isTooLateToForce()) return;
  const std::optional<StatusReport> report = client.status();
  if (!report) return lose();
  if (!isForcedBy(*report, fan)) {
    drop(fan, FanEvent::takenBack,
         "its lease ran out, or another client put it into automatic mode");
    return;
  }
  // Checked again, because the reply may have taken long.
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

/// Renews the lease. Gives the fan back if the helper refuses: otherwise the fan would stay forced
/// to its previous target.
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

/// Writes mode 0 of this fan. Does not call restoreAuto, which would take the fans of other clients
/// too. Returns false if the helper is gone.
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
