#include "Tools/FanctlForce.h"

#include <signal.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>

#include "FanControlClient/Lease.h"
#include "Platform/Clock.h"
#include "QuorvaneFanHelper/FanReading.h"

namespace quorvane::fanctl {
namespace {

using namespace std::chrono_literals;
using Duration = Lease::Duration;

constexpr Duration redrawInterval = 1s;

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
  StopRequest& stop;
  const ForceRequests& requests;
  const bool isTerminal = isatty(STDOUT_FILENO) == 1;

  HelperSMC smc{};
  ExitStatus status = done;
  bool lineIsOpen = false;
  Lease lease{client, [this](int fan, FanEvent event, const std::string& text) {
                endLine();
                show(*std::ranges::find(requests, fan, &ForceRequest::fan), event, text);
              }};

  ExitStatus run() {
    status = checkFans();
    if (status != done) return status;
    if (isTerminal) connectIfThere(smc);
    for (const ForceRequest& request : requests) {
      if (status == done) lease.hold(request.fan, request.rpm);
    }
    hold();
    lease.releaseAll(FanEvent::givenBack);
    return status;
  }

  /// A write to a missing fan would fail, and then the helper would restore all fans, those of
  /// other clients too.
  ExitStatus checkFans() {
    const std::optional<StatusReport> report = client.status();
    if (!report) return reportUnreachable(client);
    // Without an SMC the helper knows of no fan, and refuses for that reason.
    if (valueOf(*report, "smcOpen") == "0") return done;
    const std::int64_t count = parseInteger(valueOf(*report, "fanCount")).value_or(0);
    for (const ForceRequest& request : requests) {
      if (request.fan < count) continue;
      return complain(badUsage, "fan " + std::to_string(request.fan) + ": this Mac has " +
                                    std::to_string(count) + (count == 1 ? " fan" : " fans"));
    }
    return done;
  }

  /// Returns when the period is over, the user wants to stop, or any fan is lost.
  void hold() {
    while (status == done) {
      const std::optional<Duration> due = lease.advance();
      if (!due || status != done) return;
      if (isTerminal) drawLine();
      if (stop.isMadeBefore(std::min(*due, monotonicTime() + redrawInterval))) return;
    }
  }

  void show(const ForceRequest& request, FanEvent event, const std::string& text) {
    const std::string fan = "fan " + std::to_string(request.fan);
    switch (event) {
      case FanEvent::forced:
        if (!isTerminal) say(fan + " forced to " + std::to_string(request.rpm) + " rpm");
        return;
      case FanEvent::givenBack:
        return say(fan + " given back to automatic control");
      case FanEvent::periodOver:
        return say(fan + " given back to automatic control after the longest manual period");
      case FanEvent::unreachable:
        status = complain(unreachable, fan + ": " + text);
        return;
      case FanEvent::takenBack:
      case FanEvent::refused:
        status = std::max(status, complain(refused, fan + ": " + text));
        return;
    }
  }

  static void say(const std::string& text) {
    std::puts(text.c_str());
    std::fflush(stdout);
  }

  void drawLine() {
    const Duration left = std::max<Duration>(lease.end() - monotonicTime(), 0s);
    std::string line =
        "lease " +
        padded(std::to_string(std::chrono::ceil<std::chrono::seconds>(left).count()), 2) + " s";
    for (const ForceRequest& request : requests) {
      const std::string fan = std::to_string(request.fan);
      const auto actual = readSpeed(smc, "F" + fan + "Ac");
      line += "  fan " + fan + ": " + (actual ? padded(std::to_string(*actual), 4) + " of " : "");
      line += std::to_string(request.rpm) + " rpm";
    }
    winsize size{};
    ioctl(STDOUT_FILENO, TIOCGWINSZ, &size);
    const std::size_t width = size.ws_col > 0 ? size.ws_col : 80;
    // A line that wraps could not be overwritten. The escape sequence erases the rest of a longer
    // one.
    std::printf("\r%s\x1b[K", line.substr(0, width - 1).c_str());
    std::fflush(stdout);
    lineIsOpen = true;
  }

  void endLine() {
    if (lineIsOpen) say("");
    lineIsOpen = false;
  }
};

}  // namespace

StopBySignal::StopBySignal() {
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

bool StopBySignal::isMadeBefore(Duration deadline) {
  const Duration left = std::max<Duration>(deadline - monotonicTime(), 0s);
  const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
  const timespec timeout{seconds.count(), (left - seconds).count()};
  // The signals are blocked everywhere else, so one that came while a call was under way is found
  // here.
  pselect(0, nullptr, nullptr, nullptr, &timeout, &unblocked);
  return stopRequested != 0;
}

ExitStatus runForce(FanControlClient& client, StopRequest& stop, const ForceRequests& requests) {
  return ForceSession{client, stop, requests}.run();
}

}  // namespace quorvane::fanctl
