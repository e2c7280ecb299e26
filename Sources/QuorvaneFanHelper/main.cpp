// The executable's entry: probe mode, or the daemon that brings the fans to a safe baseline, sees
// to it that SIGTERM and SIGINT hand them back, and then serves its clients until one of the two
// arrives.
#include <dispatch/dispatch.h>
#include <os/log.h>

#include <algorithm>
#include <csignal>
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

/// Everything made here lives until the process ends: exit() unwinds nothing.
[[noreturn]] void runDaemon(os_log_t log) {
  if (const auto obstacle = xpc::claimMachService(helperMachService)) fail(*obstacle);

  const auto service = std::make_shared<FanHelperService>();
  service->startup();

  std::signal(SIGTERM, SIG_IGN);
  std::signal(SIGINT, SIG_IGN);
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
