// The executable's entry: probe mode, or the daemon that brings the fans to a safe baseline, sees
// to it that SIGTERM and SIGINT hand them back, and then serves its clients until one of the two
// arrives.
#include <dispatch/dispatch.h>
#include <os/log.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "Platform/Dispatch.h"
#include "Platform/XPC.h"
#include "QRVFanShared/FanControlXPC.h"
#include "QuorvaneFanHelper/FanHelperService.h"
#include "QuorvaneFanHelper/LastResort.h"
#include "QuorvaneFanHelper/ListenerDelegate.h"
#include "QuorvaneFanHelper/Probe.h"

namespace quorvane {
namespace {

using FanControlConstants::helperMachService;

[[noreturn]] void fail(const std::string& why) {
  std::fprintf(stderr, "QuorvaneFanHelper: %s\n", why.c_str());
  std::exit(EXIT_FAILURE);
}

/// From here on SIGTERM and SIGINT wait for their sources. Linux keeps a signal that is blocked for
/// its source even while it is ignored; XNU discards it. To begin to ignore a signal discards one
/// that waits, on either system: yields those that waited just before.
sigset_t holdSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  sigset_t waiting;
  sigpending(&waiting);
  signal(SIGTERM, SIG_IGN);
  signal(SIGINT, SIG_IGN);
  return waiting;
}

[[noreturn]] void restoreAndExit(FanHelperService& service) {
  service.shutdownReleasing();
  // A last resort that is under way comes to its end, and none begins.
  forcingTurn().lock();
  std::exit(EXIT_SUCCESS);
}

/// Everything made here lives until the process ends: neither exit() nor macOS's dispatch_main(),
/// which ends the main thread, unwinds anything.
[[noreturn]] void runDaemon(os_log_t log) {
  // A line that nobody can read, or that the disk does not take, is an error to its writer and not
  // the end of the fans' guard; nor is a terminal that is closed, or its keys to quit and to stop.
  for (const int each : {SIGPIPE, SIGXFSZ, SIGHUP, SIGQUIT, SIGTSTP, SIGTTOU}) {
    signal(each, SIG_IGN);
  }
  // As the service managers have it, for a start by hand: nobody else writes into our folders.
  umask(022);
  if (const auto obstacle = xpc::claimMachService(helperMachService)) fail(*obstacle);
  // Not before: another process's fans are not ours to free.
  installLastResort();

  const auto service = std::make_shared<FanHelperService>();
  service->startup();

  const sigset_t early = holdSignals();
  const dispatch::SignalSource sigterm(SIGTERM, [log, service] {
    os_log(log, "SIGTERM — restoring automatic fans and exiting");
    restoreAndExit(*service);
  });
  const dispatch::SignalSource sigint(SIGINT, [service] { restoreAndExit(*service); });
  for (const int each : {SIGTERM, SIGINT}) {
    if (sigismember(&early, each) == 1) kill(getpid(), each);
  }

  xpc::Listener listener(helperMachService);
  listener.setDelegate(std::make_shared<ListenerDelegate>(service));
  if (const auto obstacle = listener.resume()) fail(*obstacle);
  os_log(log, "Fan helper listening on %{public}s", helperMachService);
  dispatch_main();
}

}  // namespace
}  // namespace quorvane

int main(int argc, char** argv) {
  const os_log_t log = os_log_create("com.quorvane.app", "FanHelperMain");
  const bool probing = std::any_of(argv, argv + argc, [](const char* argument) {
    return std::string_view(argument) == "--probe";
  });
  if (probing) quorvane::runProbe();
  quorvane::runDaemon(log);
}
