// The companion's end of the channel: connects to the helper, passes its admission, and calls the
// four operations. Uses a Unix socket on Linux, and NSXPCConnection on macOS, where it also checks
// the helper's signature. One call at a time; used from one thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "QRVFanShared/FanControlXPC.h"

namespace quorvane {

class [[gnu::visibility("default")]] FanControlClient {
 public:
  /// A healthy helper replies within milliseconds.
  static constexpr std::chrono::seconds replyTimeout{10};

  FanControlClient();
  ~FanControlClient();
  FanControlClient(const FanControlClient&) = delete;
  FanControlClient& operator=(const FanControlClient&) = delete;

  /// Connects, passes the admission and waits for the reply to a ping, all within `replyTimeout`.
  /// If it returns false, error() has the reason.
  [[nodiscard]] bool connect();

  /// Each call returns nothing if no valid reply arrives within `replyTimeout`. Then error() has
  /// the reason, and the connection is closed. On Linux connect() opens a new one. On macOS the
  /// next call does, and launchd then starts a helper that has ended.
  [[nodiscard]] std::optional<Outcome> writeFanKey(const std::string& key, std::int64_t value,
                                                   bool isFloat);
  [[nodiscard]] std::optional<Outcome> restoreAuto();
  [[nodiscard]] std::optional<StatusReport> status();
  [[nodiscard]] std::optional<std::string> ping();

  /// Returns the last failure, as one line for a person.
  [[nodiscard]] const std::string& error() const;

 private:
  class [[gnu::visibility("hidden")]] Implementation;
  std::unique_ptr<Implementation> implementation;
};

}  // namespace quorvane
