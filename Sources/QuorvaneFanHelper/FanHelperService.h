// The one object that the helper exports, and the sole owner of fan state: the SMC connection, the
// forced fans, the lease and its cap. Its serial queue is its only lock: whatever touches the
// mutable fields, the SMC or the audit log runs in a block on it, and methods whose names end in
// Locked run nowhere else and never dispatch to it.
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
  /// Touches neither the SMC nor a file.
  FanHelperService();

  /// Opens the SMC, puts every fan into automatic mode and records the start; returns when that is
  /// done. Called once, from the main thread, before any connection is accepted. Goes on without an
  /// SMC that cannot be opened.
  void startup();

  /// Waits for what is queued, puts the fans into automatic mode, and lets nothing run on the queue
  /// afterwards; nor may the service be destroyed then. Called from the main queue, right before
  /// the process ends.
  void shutdownReleasing();

  void writeFanKey(std::string key, std::int64_t value, bool isFloat, OutcomeReply reply) override;
  void restoreAuto(OutcomeReply reply) override;
  void status(StatusReply reply) override;
  /// Replies before it returns, on the caller's thread, however busy the queue is.
  void ping(PingReply reply) override;

  /// The machine's model identifier, or "Unknown"; read at the first call. Callable from any
  /// thread.
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

  /// Yields why the key was not written, or nothing when it was.
  std::optional<std::string> performWriteLocked(const std::string& key, std::int64_t value,
                                                bool isFloat);
  void sendLocked(const FanKey& fanKey, const std::string& key, std::int64_t value);
  void noteForcedLocked(std::int64_t index);
  void noteReleasedLocked(std::int64_t index);

  void armWatchdogLocked();
  void cancelTimersLocked();
  void leaseExpiredLocked();
  void hardCapReachedLocked();

  /// Best effort: a mode key that cannot be written stops nothing.
  void restoreAllLocked(std::string_view reason);
  std::set<std::int64_t> fansToRestoreLocked();

  /// As the SMC reports it now; 0 when it does not.
  unsigned fanCountLocked();
  StatusReport statusReportLocked();

  const os_log_t log;
  HelperSMC smc;
  const dispatch::Queue queue;
  std::optional<dispatch::OneShotTimer> watchdog;
  std::optional<dispatch::OneShotTimer> hardCap;
  bool smcOpen = false;
  std::set<std::int64_t> forcedFans;
  const std::string version = "1.0.0";
};

}  // namespace quorvane
