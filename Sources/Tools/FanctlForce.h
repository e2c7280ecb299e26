// fanctl force: holds one fan at a speed for as long as the helper allows, and gives it back on a
// signal. Runs on the main thread.
#pragma once

#include <signal.h>

#include <chrono>
#include <cstdint>

#include "Tools/FanctlCommand.h"

namespace quorvane::fanctl {

/// The time, and the user's wish to stop. A test puts a virtual clock in its place.
class ForceClock {
 public:
  using Duration = std::chrono::nanoseconds;

  virtual ~ForceClock() = default;
  /// Monotonic, counted from an unspecified moment.
  virtual Duration now() = 0;
  /// True as soon as the user has asked to stop; else false at `deadline` or somewhat earlier.
  virtual bool stopRequestedBy(Duration deadline) = 0;
};

/// The clock by which the helper counts lease and cap too. From its making on, SIGINT and SIGTERM
/// are a request to stop and nothing else.
class SignalClock : public ForceClock {
 public:
  SignalClock();
  Duration now() override;
  bool stopRequestedBy(Duration deadline) override;

 private:
  sigset_t unblocked;
};

struct ForceRequest {
  char fan;  ///< '0' to '9', as in a key.
  std::int64_t rpm;
};

/// Forces the fan until asked to stop, until maxManualSeconds have passed, until the helper refuses
/// or is gone, or until someone else has put the fan into automatic mode. On a terminal a line is
/// redrawn every second; else there is one line at the beginning and one at the end.
ExitStatus runForce(FanControlClient& client, ForceClock& clock, const ForceRequest& request);

}  // namespace quorvane::fanctl
