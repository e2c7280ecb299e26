// The companion's end of the channel: connects to the helper, passes its admission, and calls the
// four operations. Over a Unix socket on Linux, over NSXPCConnection on macOS, where it checks the
// helper's signature too. One call at a time; used from one thread.
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
  /// The helper answers in milliseconds unless it is in trouble.
  static constexpr std::chrono::seconds replyTimeout{10};

  FanControlClient();
  ~FanControlClient();
  FanControlClient(const FanControlClient&) = delete;
  FanControlClient& operator=(const FanControlClient&) = delete;

  /// Connects, is admitted and has a ping answered, within `replyTimeout`. False leaves the reason
  /// in error().
  [[nodiscard]] bool connect();

  /// Nothing when the helper could not be asked or did not answer within `replyTimeout`: error()
  /// says why, and the connection is over. On Linux connect() makes a new one, on macOS the next
  /// call does, upon which launchd starts a helper that has ended.
  [[nodiscard]] std::optional<Outcome> writeFanKey(const std::string& key, std::int64_t value,
                                                   bool isFloat);
  [[nodiscard]] std::optional<Outcome> restoreAuto();
  [[nodiscard]] std::optional<StatusReport> status();
  [[nodiscard]] std::optional<std::string> ping();

  /// One line for a person, of the last failure.
  [[nodiscard]] const std::string& error() const;

 private:
  class [[gnu::visibility("hidden")]] Implementation;
  std::unique_ptr<Implementation> implementation;
};

}  // namespace quorvane
