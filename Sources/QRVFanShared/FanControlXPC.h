// The contract between the helper and its companion application: the constants both sides use, and
// the one interface that the helper exports. Standard library only; immutable, so usable from any
// thread.
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
/// File name of the helper's launchd property list; for the application's side.
inline constexpr char helperPlistName[] = "com.quorvane.fanhelper.plist";
inline constexpr std::array<std::string_view, 2> appBundleIDs{"com.quorvane.app",
                                                              "com.quorvane.app-vendra"};
/// Ten letters and digits, chosen when building.
inline constexpr std::string_view teamID = QUORVANE_TEAM_ID;
/// How long one forcing write keeps manual control, in seconds.
inline constexpr std::int64_t leaseSeconds = 20;
/// The highest target speed that is taken; the lowest is 0.
inline constexpr std::int64_t maxTargetRPM = 12000;
/// How long a manual period may last however often it is renewed, in seconds.
inline constexpr std::int64_t maxManualSeconds = 1800;
inline constexpr char auditLogPath[] = "/Library/Application Support/Quorvane/fan-audit.log";
/// What the helper's own signature satisfies; for the application's side.
inline constexpr std::string_view helperCodeRequirement =
    "identifier \"com.quorvane.fanhelper\" and anchor apple generic and "
    "certificate leaf[subject.OU] = \"" QUORVANE_TEAM_ID "\"";

/// What a client's signature must satisfy, in the code-signing requirement language; composed on
/// each call.
[[gnu::visibility("default")]] std::string appCodeRequirement();

}  // namespace FanControlConstants

/// The status report: six entries in the order in which they are assembled, keys unique.
using StatusReport = std::vector<std::pair<std::string, std::string>>;

/// Whether an operation did what was asked; if not, a text that says why.
struct Outcome {
  bool success = false;
  std::optional<std::string> message;
};

/// The operations of the helper. Calls arrive on a connection's thread and return at once; each
/// reply is called exactly once, from the connection's thread or from the service's queue, unless
/// the process ends first.
class FanControlXPC {
 public:
  /// What an Outcome holds.
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
