// The contract between the helper and a companion: the constants of both sides, and the one
// interface that the helper exports. Uses the standard library only. Immutable, so thread-safe.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quorvane {

namespace FanControlConstants {

inline constexpr char helperMachService[] = "com.quorvane.fanhelper";
/// File name of the helper's launchd property list, for the application.
inline constexpr char helperPlistName[] = "com.quorvane.fanhelper.plist";
inline constexpr std::array<std::string_view, 2> appBundleIDs{"com.quorvane.app",
                                                              "com.quorvane.app-vendra"};
/// Ten letters and digits, set by the build.
inline constexpr std::string_view teamID = QUORVANE_TEAM_ID;
/// The lease: how long one forcing write keeps manual control, in seconds.
inline constexpr std::int64_t leaseSeconds = 20;
/// The highest target speed that the helper accepts, in rpm; the lowest is 0.
inline constexpr std::int64_t maxTargetRPM = 12000;
/// The cap: the longest manual period, in seconds, however often it is renewed.
inline constexpr std::int64_t maxManualSeconds = 1800;
inline constexpr char auditLogPath[] = "/Library/Application Support/Quorvane/fan-audit.log";
/// The requirement that the helper's own signature satisfies, for the application.
inline constexpr std::string_view helperCodeRequirement =
    "identifier \"com.quorvane.fanhelper\" and anchor apple generic and "
    "certificate leaf[subject.OU] = \"" QUORVANE_TEAM_ID "\"";

/// Returns the requirement that a client's signature must satisfy, in the code-signing requirement
/// language. Composed on each call.
[[gnu::visibility("default")]] std::string appCodeRequirement();

}  // namespace FanControlConstants

/// The status report: six entries with unique keys, in the order of their assembly.
using StatusReport = std::vector<std::pair<std::string, std::string>>;

/// Whether an operation did what was asked, and if not, why.
struct Outcome {
  bool success = false;
  std::optional<std::string> message;
};

/// The operations of the helper. Calls arrive on a connection's thread and return immediately. Each
/// reply is called exactly once, on the connection's thread or on the service's queue, unless the
/// process ends first.
class FanControlXPC {
 public:
  /// Takes the members of an Outcome.
  using OutcomeReply = std::function<void(bool success, std::optional<std::string> message)>;
  using StatusReply = std::function<void(StatusReport status)>;
  using PingReply = std::function<void(std::string answer)>;

  virtual ~FanControlXPC() = default;

  virtual void writeFanKey(std::string key, std::int64_t value, bool isFloat,
                           OutcomeReply reply) = 0;
  virtual void restoreAuto(OutcomeReply reply) = 0;
  virtual void status(StatusReply reply) = 0;
  virtual void ping(PingReply reply) = 0;
};

}  // namespace quorvane
