// The executable's entry: probe mode, or the daemon. The daemon puts the fans into automatic mode,
// makes SIGTERM and SIGINT restore them, and serves its clients until one of the two arrives.
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

/// Blocks SIGTERM and SIGINT for their sources, and ignores them. Linux keeps a blocked signal for
/// its source even if it is ignored; XNU discards it. Both systems discard a pending signal when it
/// becomes ignored, so this returns the signals that were pending before.
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
  // Blocks until a running last resort ends the process, and keeps another from starting.
  forcingTurn().lock();
  std::exit(EXIT_SUCCESS);
}

/// Everything created here lives until the process ends. exit() unwinds nothing, and macOS's
/// dispatch_main(), which ends the main thread, unwinds nothing either.
[[noreturn]] void runDaemon(os_log_t log) {
  // The daemon survives a reader that is gone, a file at its size limit, a closed terminal, and the
  // terminal's keys to quit and to stop. A write of its own only fails.
  for (const int each : {SIGPIPE, SIGXFSZ, SIGHUP, SIGQUIT, SIGTSTP, SIGTTOU}) {
    signal(each, SIG_IGN);
  }
  // For a start by hand; service managers set the same. Only we may write into our folders.
  umask(022);
  if (const auto obstacle = xpc::claimMachService(helperMachService)) fail(*obstacle);
  // After the claim: the fans of another process are not ours to restore.
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
