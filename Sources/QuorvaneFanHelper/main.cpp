// The executable's entry: probe mode, or the daemon that brings the fans to a safe baseline, sees
// to it that SIGTERM and SIGINT hand them back, and then serves its clients until one of the two
// arrives.
#include <dispatch/dispatch.h>
#include <os/log.h>
#include <signal.h>
#include <sys/stat.h>

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
#include "QuorvaneFanHelper/ListenerDelegate.h"
#include "QuorvaneFanHelper/Probe.h"

namespace quorvane {
namespace {

using FanControlConstants::helperMachService;

[[noreturn]] void fail(const std::string& why) {
  std::fprintf(stderr, "QuorvaneFanHelper: %s\n", why.c_str());
  std::exit(EXIT_FAILURE);
}

/// An ignored signal is lost until its source is there; one that is blocked as well waits for it.
void holdSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

/// Everything made here lives until the process ends: neither exit() nor macOS's dispatch_main(),
/// which ends the main thread, unwinds anything.
[[noreturn]] void runDaemon(os_log_t log) {
  // A line that nobody can read, or that the disk does not take, is an error to its writer and not
  // the end of the fans' guard.
  signal(SIGPIPE, SIG_IGN);
  signal(SIGXFSZ, SIG_IGN);
  // As the service managers have it, for a start by hand: nobody else writes into our folders.
  umask(022);
  if (const auto obstacle = xpc::claimMachService(helperMachService)) fail(*obstacle);

  const auto service = std::make_shared<FanHelperService>();
  service->startup();

  holdSignals();
  signal(SIGTERM, SIG_IGN);
  signal(SIGINT, SIG_IGN);
  const dispatch::SignalSource sigterm(SIGTERM, [log, service] {
    os_log(log, "SIGTERM — restoring automatic fans and exiting");
    service->shutdownReleasing();
    std::exit(EXIT_SUCCESS);
  });
  const dispatch::SignalSource sigint(SIGINT, [service] {
    service->shutdownReleasing();
    std::exit(EXIT_SUCCESS);
  });

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
