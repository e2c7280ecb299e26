#include "Tools/FanctlForce.h"

#include <signal.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>
#include <string_view>

#include "Platform/Clock.h"
#include "QuorvaneFanHelper/FanReading.h"

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

constexpr int stopSignals[] = {SIGINT, SIGTERM, SIGHUP};
volatile sig_atomic_t stopRequested = 0;

std::string_view valueOf(const StatusReport& report, std::string_view key) {
  for (const auto& [name, value] : report) {
    if (name == key) return value;
  }
  return "";
}

/// Fans under manual control, from the first write to the last.
struct ForceSession {
  FanControlClient& client;
  ForceClock& clock;
  const ForceRequests& requests;
  const bool isTerminal = isatty(STDOUT_FILENO) == 1;

  HelperSMC smc{};
  Duration end{};
  /// When the last acknowledged write was sent: the lease of all fans runs at least from then.
  Duration lastWrite{};
  /// Those that are ours to give back.
  ForceRequests held{};
  bool lineIsOpen = false;

  ExitStatus run() {
    ExitStatus status = checkFans();
    if (status != done) return status;
    if (isTerminal) connectIfThere(smc);
    // Taken ahead of the first write, so that our count is never behind the helper's.
    const Duration begin = clock.now();
    end = begin + maxManual - handOverLead;
    status = force();
    if (status == done) status = hold(begin + renewalInterval);
    if (status != unreachable) status = std::max(status, giveBack());
    if (status != unreachable) return status;
    std::cerr << "fanctl: the helper takes forced fans back within " << lease.count() << " s\n";
    return unreachable;
  }

  /// A write to a fan that is not there would fail, upon which the helper takes all fans back,
  /// those of other clients too.
  ExitStatus checkFans() {
    const std::optional<StatusReport> report = client.status();
    if (!report) return reportUnreachable(client);
    // Without an SMC the helper knows of no fan, and refuses for that reason.
    if (valueOf(*report, "smcOpen") == "0") return done;
    const std::int64_t count = parseInteger(valueOf(*report, "fanCount")).value_or(0);
    for (const ForceRequest& request : requests) {
      if (request.fan - '0' < count) continue;
      std::cerr << "fanctl: fan " << request.fan << ": this Mac has " << count
                << (count == 1 ? " fan\n" : " fans\n");
      return badUsage;
    }
    return done;
  }

  ExitStatus force() {
    for (const ForceRequest& request : requests) {
      if (const ExitStatus status = write(request, "Md", 1); status != done) return status;
      held.push_back(request);
      if (const ExitStatus status = writeTarget(request); status != done) return status;
      if (isTerminal) continue;
      std::cout << "fan " << request.fan << " forced to " << request.rpm << " rpm" << std::endl;
    }
    return done;
  }

  ExitStatus hold(Duration nextRenewal) {
    while (clock.now() < end) {
      if (isTerminal) drawLine();
      const Duration pause = std::min({clock.now() + redrawInterval, nextRenewal, end});
      if (clock.stopRequestedBy(pause)) return done;
      if (clock.now() < nextRenewal) continue;
      nextRenewal = clock.now() + renewalInterval;
      if (const ExitStatus status = renew(); status != done) return status;
    }
    return done;
  }

  /// A forcing write for a fan that the helper or another client has put into automatic mode would
  /// open a new period against their will. So the helper is asked first, as late as can be.
  ExitStatus renew() {
    if (isTooLateToRenew()) return done;
    const std::optional<StatusReport> report = client.status();
    if (!report) return fail();
    const std::string_view forced = valueOf(*report, "forcedFans");
    std::erase_if(held, [&](const ForceRequest& request) { return isLost(request, forced); });
    if (held.size() < requests.size()) return refused;
    for (const ForceRequest& request : held) {
      // Once more, for the answers may have taken long.
      if (isTooLateToRenew()) return done;
      if (const ExitStatus status = writeTarget(request); status != done) return status;
    }
    return done;
  }

  bool isTooLateToRenew() { return clock.now() >= end - lastRenewalBeforeEnd; }

  bool isLost(const ForceRequest& request, std::string_view forcedFans) {
    // A list of single digits: to find the digit is to find the fan.
    if (forcedFans.find(request.fan) != std::string_view::npos) return false;
    endLine();
    std::cerr << "fanctl: fan " << request.fan << " is no longer forced: its lease ran out, or it "
              << "was put into automatic mode by another client\n";
    return true;
  }

  /// Mode 0 of these fans and not restoreAuto, which would take their fans from other clients too.
  /// Also of a fan whose target was refused: it would be forced to whatever was its target before.
  ExitStatus giveBack() {
    const char* occasion = clock.now() < end ? "" : " after the longest manual period";
    ExitStatus worst = done;
    for (const ForceRequest& request : held) {
      const ExitStatus status = write(request, "Md", 0);
      if (status == unreachable) return status;
      worst = std::max(worst, status);
      if (status != done) continue;
      endLine();
      std::cout << "fan " << request.fan << " given back to automatic control" << occasion
                << std::endl;
    }
    return worst;
  }

  ExitStatus writeTarget(const ForceRequest& request) { return write(request, "Tg", request.rpm); }

  ExitStatus write(const ForceRequest& request, std::string_view suffix, std::int64_t value) {
    const Duration sent = clock.now();
    const auto outcome = client.writeFanKey(key(request, suffix), value, suffix == "Tg");
    if (!outcome) return fail();
    if (!outcome->success) endLine();
    if (outcome->success) lastWrite = sent;
    return report(*outcome, std::string("fan ").append(1, request.fan).append(": "));
  }

  ExitStatus fail() {
    endLine();
    return reportUnreachable(client);
  }

  void drawLine() {
    const Duration left = std::max<Duration>(lastWrite + lease - clock.now(), 0s);
    std::ostringstream line;
    line << "lease " << std::setw(2) << std::chrono::ceil<std::chrono::seconds>(left).count()
         << " s";
    for (const ForceRequest& request : held) {
      line << "  fan " << request.fan << ": ";
      const auto actual = readSpeed(smc, key(request, "Ac"));
      if (actual) line << std::setw(4) << *actual << " of ";
      line << request.rpm << " rpm";
    }
    winsize size{};
    ioctl(STDOUT_FILENO, TIOCGWINSZ, &size);
    const std::size_t width = size.ws_col > 0 ? size.ws_col : 80;
    // A line that wraps could not be drawn over. What is left of a longer one is erased.
    std::cout << '\r' << line.str().substr(0, width - 1) << "\x1b[K" << std::flush;
    lineIsOpen = true;
  }

  void endLine() {
    if (lineIsOpen) std::cout << std::endl;
    lineIsOpen = false;
  }

  static std::string key(const ForceRequest& request, std::string_view suffix) {
    return std::string("F").append(1, request.fan).append(suffix);
  }
};

}  // namespace

SignalClock::SignalClock() {
  struct sigaction request {};
  request.sa_handler = [](int) { stopRequested = 1; };
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : stopSignals) {
    sigaddset(&signals, signal);
    struct sigaction before {};
    sigaction(signal, &request, &before);
    // As nohup(1) has it.
    if (signal == SIGHUP && before.sa_handler == SIG_IGN) sigaction(signal, &before, nullptr);
  }
  pthread_sigmask(SIG_BLOCK, &signals, &unblocked);
  for (const int signal : stopSignals) sigdelset(&unblocked, signal);
  // A reader that goes away is no reason to leave the fans forced.
  ::signal(SIGPIPE, SIG_IGN);
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

ExitStatus runForce(FanControlClient& client, ForceClock& clock, const ForceRequests& requests) {
  return ForceSession{client, clock, requests}.run();
}

}  // namespace quorvane::fanctl
