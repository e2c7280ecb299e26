// fanctl force: holds fans at a speed for as long as the helper allows, and gives them back on a
// signal. Runs on the main thread.
#pragma once

#include <signal.h>

#include <chrono>
#include <cstdint>
#include <vector>

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

/// The clock by which the helper counts lease and cap too. From its making on, SIGINT, SIGTERM
/// and SIGHUP are a request to stop and nothing else; a SIGHUP that was ignored before stays so.
/// SIGPIPE is ignored.
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

/// At least one, and no fan twice.
using ForceRequests = std::vector<ForceRequest>;

/// Forces the fans until asked to stop, until maxManualSeconds have passed, until the helper
/// refuses or is gone, or until someone else has put one of them into automatic mode; the others
/// are given back then. On a terminal a line is redrawn every second, with the actual speeds where
/// this user may read them; else there is one line for each fan at the beginning and one at the
/// end.
ExitStatus runForce(FanControlClient& client, ForceClock& clock, const ForceRequests& requests);

}  // namespace quorvane::fanctl
