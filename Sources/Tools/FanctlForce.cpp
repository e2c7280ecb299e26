#include "Tools/FanctlForce.h"

#include <signal.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <iomanip>
#include <iostream>
#include <string>
#include <string_view>

#include "Platform/Clock.h"
#include "QRVFanShared/FanControlXPC.h"

namespace quorvane::fanctl {
namespace {

using namespace std::chrono_literals;
using Duration = ForceClock::Duration;

constexpr std::chrono::seconds lease{FanControlConstants::leaseSeconds};
constexpr std::chrono::seconds maxManual{FanControlConstants::maxManualSeconds};
constexpr Duration renewalInterval = 5s;
constexpr Duration redrawInterval = 1s;
/// How much earlier than the helper's cap we end, so as not to race it.
constexpr Duration handOverLead = 1s;
/// A renewal that reached the helper after its cap would open a second period. A period of ours
/// ends there later than here, and a call is answered or given up within replyTimeout; so the last
/// renewal is over by then. What it grants outlasts the period all the same.
constexpr Duration lastRenewalBeforeEnd = FanControlClient::replyTimeout;
static_assert(lastRenewalBeforeEnd + renewalInterval < lease);

volatile sig_atomic_t stopRequested = 0;

/// One fan under manual control, from the first write to the last.
struct ForceSession {
  FanControlClient& client;
  ForceClock& clock;
  const ForceRequest request;
  const bool isTerminal = isatty(STDOUT_FILENO) == 1;

  Duration end{};
  /// When the last acknowledged write was sent: the lease runs at least from then.
  Duration lastWrite{};
  bool lineIsOpen = false;

  ExitStatus run() {
    // Taken ahead of the first write, so that our count is never behind the helper's.
    const Duration begin = clock.now();
    end = begin + maxManual - handOverLead;
    if (const ExitStatus status = writeMode(1); status != done) return status;
    if (const ExitStatus status = writeTarget(); status != done) return status;
    if (!isTerminal) {
      std::cout << "fan " << request.fan << " forced to " << request.rpm << " rpm" << std::endl;
    }
    return hold(begin + renewalInterval);
  }

  ExitStatus hold(Duration nextRenewal) {
    while (clock.now() < end) {
      if (isTerminal) drawLine();
      if (clock.stopRequestedBy(std::min({clock.now() + redrawInterval, nextRenewal, end}))) {
        return giveBack("as asked");
      }
      if (clock.now() < nextRenewal) continue;
      nextRenewal = clock.now() + renewalInterval;
      if (const ExitStatus status = renew(); status != done) return status;
    }
    return giveBack("after the longest manual period");
  }

  /// A forcing write for a fan that the helper or another client has put into automatic mode would
  /// open a new period against their will. So the helper is asked first, as late as can be.
  ExitStatus renew() {
    if (isTooLateToRenew()) return done;
    const std::optional<StatusReport> report = client.status();
    if (!report) return tell(std::nullopt);
    // Once more, for the answer may have taken long.
    if (isTooLateToRenew()) return done;
    if (!isForced(*report)) {
      endLine();
      std::cerr << "fanctl: fan " << request.fan
                << " is no longer forced: its lease ran out, or it was "
                << "put into automatic mode by another client\n";
      return refused;
    }
    return writeTarget();
  }

  bool isTooLateToRenew() { return clock.now() >= end - lastRenewalBeforeEnd; }

  bool isForced(const StatusReport& report) const {
    for (const auto& [key, value] : report) {
      // A list of single digits: to find the digit is to find the fan.
      if (key == "forcedFans") return value.find(request.fan) != std::string::npos;
    }
    return false;
  }

  ExitStatus writeMode(std::int64_t mode) {
    return tell(client.writeFanKey(key("Md"), mode, /*isFloat=*/false));
  }

  /// Renews the lease. When it is refused the fan is given back: it would be forced to whatever
  /// speed was its target before.
  ExitStatus writeTarget() {
    const Duration sent = clock.now();
    const ExitStatus status = tell(client.writeFanKey(key("Tg"), request.rpm, /*isFloat=*/true));
    if (status == done) lastWrite = sent;
    if (status == refused) writeMode(0);
    return status;
  }

  /// Mode 0 of this fan and not restoreAuto, which would take their fans from other clients too.
  ExitStatus giveBack(std::string_view occasion) {
    const ExitStatus status = writeMode(0);
    endLine();
    if (status == done) {
      std::cout << "fan " << request.fan << " given back to automatic control " << occasion
                << std::endl;
    }
    return status;
  }

  ExitStatus tell(const std::optional<Outcome>& outcome) {
    if (outcome && outcome->success) return done;
    endLine();
    if (outcome) return report(*outcome);
    reportUnreachable(client);
    std::cerr << "fanctl: if fan " << request.fan << " is forced, the helper takes it back within "
              << lease.count() << " seconds\n";
    return unreachable;
  }

  void drawLine() {
    const Duration left = std::max<Duration>(lastWrite + lease - clock.now(), 0s);
    std::cout << "\rfan " << request.fan << "  " << request.rpm << " rpm requested  lease "
              << std::setw(2) << std::chrono::ceil<std::chrono::seconds>(left).count() << " s "
              << std::flush;
    lineIsOpen = true;
  }

  void endLine() {
    if (lineIsOpen) std::cout << std::endl;
    lineIsOpen = false;
  }

  std::string key(std::string_view suffix) const {
    return std::string("F").append(1, request.fan).append(suffix);
  }
};

}  // namespace

SignalClock::SignalClock() {
  struct sigaction request {};
  request.sa_handler = [](int) { stopRequested = 1; };
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM}) {
    sigaddset(&signals, signal);
    sigaction(signal, &request, nullptr);
  }
  pthread_sigmask(SIG_BLOCK, &signals, &unblocked);
  for (const int signal : {SIGINT, SIGTERM}) sigdelset(&unblocked, signal);
}

Duration SignalClock::now() {
  return monotonicTime();
}

bool SignalClock::stopRequestedBy(Duration deadline) {
  const Duration left = std::max<Duration>(deadline - now(), 0s);
  const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
  const timespec timeout{seconds.count(), (left - seconds).count()};
  // The signals are blocked everywhere else, so one that came while a call was under way is found
  // here.
  pselect(0, nullptr, nullptr, nullptr, &timeout, &unblocked);
  return stopRequested != 0;
}

ExitStatus runForce(FanControlClient& client, ForceClock& clock, const ForceRequest& request) {
  return ForceSession{client, clock, request}.run();
}

}  // namespace quorvane::fanctl
