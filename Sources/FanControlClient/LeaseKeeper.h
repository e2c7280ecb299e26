// Holds fans at speeds for a companion: forces them, renews the lease, reconnects after the helper
// has restarted, and gives the fans back. Owned by the companion. Its operations are thread-safe
// and return immediately; its own thread talks to the helper.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace quorvane {

/// What happened to a fan. The last four end its hold.
enum class FanEvent {
  forced,       ///< The helper acknowledged the speed; again after `unreachable`.
  unreachable,  ///< The helper is gone. The keeper retries while the lease may still run.
  givenBack,    ///< In automatic mode, as the companion asked.
  periodOver,   ///< In automatic mode, or never forced: the longest manual period ends.
  takenBack,    ///< By the lease, the cap, another client, or a helper that ended or restarted.
  refused       ///< The helper refused, or a new hold() could not reach it.
};

class [[gnu::visibility("default")]] LeaseKeeper {
 public:
  /// Called on the keeper's thread. `text` is one line for a person, empty for `forced`. May call
  /// hold() and release(). Must not destroy the keeper and must not throw.
  using Handler = std::function<void(int fan, FanEvent event, const std::string& text)>;

  /// Throws std::system_error if it cannot start a thread.
  explicit LeaseKeeper(Handler handler);
  /// Gives back the held fans and drops the requests that are still waiting. Waits for a call that
  /// is in progress, so up to half a minute if the helper hangs.
  ~LeaseKeeper();
  LeaseKeeper(const LeaseKeeper&) = delete;
  LeaseKeeper& operator=(const LeaseKeeper&) = delete;

  /// Forces a fan (0 to 9) to a speed in rpm, or changes the speed of a held fan. The helper
  /// decides which speeds are valid. `takenBack` and `periodOver` also drop the requests that wait
  /// when they are reported, so that none forces again a fan that someone gave back.
  void hold(int fan, std::int64_t rpm);
  /// Puts this fan, and no other, into automatic mode; no-op if it is not held.
  void release(int fan);

 private:
  class [[gnu::visibility("hidden")]] Implementation;
  std::unique_ptr<Implementation> implementation;
};

}  // namespace quorvane
