// Holds fans at speeds for a companion: forces them, renews the lease, reconnects when the helper
// has restarted, and gives the fans back. Owned by the companion. Its operations return at once and
// may be called from any thread; a thread of its own talks to the helper.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace quorvane {

/// What has become of a fan. The last four end its hold.
enum class FanEvent {
  forced,       ///< The helper has acknowledged the speed; after `unreachable`, once more.
  unreachable,  ///< The helper cannot be asked. Tried again for as long as the lease may last.
  givenBack,    ///< In automatic mode, as release() asked.
  periodOver,   ///< In automatic mode, or not forced at all, as the longest manual period ends.
  takenBack,    ///< By the lease, the cap, another client, or a helper that left or restarted.
  refused       ///< The helper said no, or a new hold() could not reach it.
};

class [[gnu::visibility("default")]] LeaseKeeper {
 public:
  /// Called on the keeper's thread. `text` is one line for a person, empty for the first event. May
  /// call hold() and release(), but not destroy the keeper; must not throw.
  using Handler = std::function<void(int fan, FanEvent event, const std::string& text)>;

  /// Throws std::system_error when no thread can be made.
  explicit LeaseKeeper(Handler handler);
  /// Gives back what is held and forgets what was asked for since. Waits for a call that is under
  /// way, so up to half a minute when the helper hangs.
  ~LeaseKeeper();
  LeaseKeeper(const LeaseKeeper&) = delete;
  LeaseKeeper& operator=(const LeaseKeeper&) = delete;

  /// Forces a fan (0 to 9) to a speed in rpm, or changes the speed of one that is held. Which
  /// speeds there are is for the helper to say. A fan that someone has given back is not forced
  /// again: `takenBack` and `periodOver` end every hold that was asked for before they are told.
  void hold(int fan, std::int64_t rpm);
  /// Puts the fan under automatic control, and no other; without effect when it is not held.
  void release(int fan);

 private:
  class [[gnu::visibility("hidden")]] Implementation;
  std::unique_ptr<Implementation> implementation;
};

}  // namespace quorvane
