// The one object that the helper exports, and the only owner of fan state: the SMC connection, the
// forced fans, the lease and its cap. Its serial queue is its only lock. The mutable fields, the
// SMC and the audit log are used only in blocks on it. Methods whose names end in Locked run only
// there and never dispatch to it.
#pragma once

#include <os/log.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "Platform/Dispatch.h"
#include "QRVFanShared/FanControlXPC.h"
#include "QuorvaneFanHelper/HelperSMC.h"

namespace quorvane {

/// Owned by a shared_ptr: requests on the queue keep it alive, pending timers do not.
class FanHelperService final : public FanControlXPC,
                               public std::enable_shared_from_this<FanHelperService> {
 public:
  /// Uses no SMC and no file.
  FanHelperService();

  /// Opens the SMC, puts every fan into automatic mode, records the start, and then returns.
  /// Continues if the SMC cannot be opened. Called once, on the main thread, before any connection
  /// is accepted.
  void startup();

  /// Waits for the queued work, restores the fans and suspends the queue. The service must not be
  /// destroyed afterwards. Called on the main queue, immediately before the process ends.
  void shutdownReleasing();

  void writeFanKey(std::string key, std::int64_t value, bool isFloat, OutcomeReply reply) override;
  void restoreAuto(OutcomeReply reply) override;
  void status(StatusReply reply) override;
  /// Replies on the caller's thread before it returns, however busy the queue is.
  void ping(PingReply reply) override;

  /// Returns the machine's model identifier, or "Unknown". Read at the first call. Thread-safe.
  static const std::string& model();

 private:
  struct FanKey {
    enum class Kind : std::uint8_t { mode, target };
    Kind kind;
    std::int64_t index;
  };

  /// Carries a reply from the connection's thread into a block on the queue.
  template <class Reply>
  struct UncheckedBox {
    explicit UncheckedBox(Reply reply) : value(std::move(reply)) {}
    const Reply value;
  };

  static std::optional<FanKey> classify(std::string_view key);
  static std::optional<std::string> valueRefusal(const FanKey& fanKey, std::int64_t value,
                                                 bool isFloat);

  /// Returns the reason why the key was not written, or nothing on success.
  std::optional<std::string> performWriteLocked(const std::string& key, std::int64_t value,
                                                bool isFloat);
  void sendLocked(const FanKey& fanKey, const std::string& key, std::int64_t value);
  void noteForcedLocked(std::int64_t index);
  void noteReleasedLocked(std::int64_t index);

  void armWatchdogLocked();
  void cancelTimersLocked();
  void leaseExpiredLocked();
  void hardCapReachedLocked();

  /// Best effort: continues after a mode key that cannot be written.
  void restoreAllLocked(std::string_view reason);
  std::set<std::int64_t> fansToRestoreLocked();

  /// The count in the SMC, or 0 if it cannot be read.
  unsigned fanCountLocked();
  StatusReport statusReportLocked();

  const os_log_t log;
  HelperSMC smc;
  const dispatch::Queue queue;
  std::optional<dispatch::OneShotTimer> watchdog;
  std::optional<dispatch::OneShotTimer> hardCap;
  bool smcOpen = false;
  std::set<std::int64_t> forcedFans;
  const std::string version = QUORVANE_VERSION;
};

}  // namespace quorvane
