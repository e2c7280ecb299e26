// The decisions of a lease keeper: its calls to the helper, and the events that it reports. Has no
// thread and does not wait, so a test runs it on a virtual clock. Used from one thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "FanControlClient/FanControlClient.h"
#include "FanControlClient/LeaseKeeper.h"

namespace quorvane {

class Lease {
 public:
  /// On the clock of monotonicTime().
  using Duration = std::chrono::nanoseconds;

  Lease(FanControlClient& client, LeaseKeeper::Handler tell);

  /// As in LeaseKeeper.
  void hold(int fan, std::int64_t rpm);
  void release(int fan);
  void releaseAll(FanEvent occasion);
  /// Does what is due. Returns the time of the next call, or nothing while no fan is held.
  std::optional<Duration> advance();
  /// The earliest time at which the helper takes the held fans back unless the lease is renewed.
  [[nodiscard]] Duration end() const;

 private:
  struct Fan {
    std::int64_t rpm;
    /// As last reported to the handler.
    bool isForced = false;
  };

  void renew();
  void renewFan(int fan);
  bool reach();
  void forceTarget(int fan);
  bool force(int fan, std::string_view suffix, std::int64_t value, bool isFloat);
  bool giveBack(int fan, FanEvent occasion, const std::string& text);
  void lose();
  void drop(int fan, FanEvent event, const std::string& text);
  [[nodiscard]] bool isTooLateToForce() const;
  [[nodiscard]] std::string leftToTheHelper() const;

  FanControlClient& client;
  const LeaseKeeper::Handler tell;
  std::map<int, Fan> fans;
  bool isConnected = false;
  Duration periodEnd{};
  Duration nextRenewal{};
  /// When the last acknowledged forcing write was sent: the lease starts then or later.
  Duration lastWrite{};
};

}  // namespace quorvane
