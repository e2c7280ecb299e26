// fanctl force: holds fans at a speed for as long as the helper allows, and gives them back on a
// signal. Runs on the main thread.
#pragma once

#include <signal.h>

#include <chrono>
#include <cstdint>
#include <vector>

#include "Tools/FanctlCommand.h"

namespace quorvane::fanctl {

/// The user's request to stop. A test puts its own in place.
class StopRequest {
 public:
  virtual ~StopRequest() = default;
  /// Waits until the deadline on monotonicTime() at most. Returns whether the request has come; may
  /// return false early.
  virtual bool isMadeBefore(std::chrono::nanoseconds deadline) = 0;
};

/// From its construction on, SIGINT, SIGTERM and SIGHUP mean a request to stop and nothing else; a
/// SIGHUP that was ignored before stays ignored. Ignores SIGPIPE.
class StopBySignal : public StopRequest {
 public:
  StopBySignal();
  bool isMadeBefore(std::chrono::nanoseconds deadline) override;

 private:
  sigset_t unblocked;
};

struct ForceRequest {
  int fan;  ///< 0 to 9.
  std::int64_t rpm;
};

/// At least one, and no fan twice.
using ForceRequests = std::vector<ForceRequest>;

/// Holds the fans until the request to stop, for maxManualSeconds at most. Ends early, and gives
/// all of them back, when the helper refuses or is gone, or when one of them is no longer forced.
/// On a terminal it redraws a line every second, with the actual speeds if this user may read them;
/// otherwise it prints one line for each fan at the beginning and one at the end.
ExitStatus runForce(FanControlClient& client, StopRequest& stop, const ForceRequests& requests);

}  // namespace quorvane::fanctl
