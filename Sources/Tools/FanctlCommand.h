// What the commands of fanctl share: exit statuses, the calls to the helper as a user spells them,
// and how a failed one is told. Everything runs on the main thread.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>

#include "FanControlClient/FanControlClient.h"

namespace quorvane::fanctl {

enum ExitStatus : int {
  done = 0,        ///< The helper said true.
  refused = 1,     ///< The helper said false, or the SMC tells of no fan, or the output is lost.
  badUsage = 2,    ///< Arguments or a line of a batch that make no command.
  unreachable = 3  ///< The helper cannot be reached, cut us off or did not answer.
};

using Arguments = std::span<const std::string_view>;
/// In the type of the call, or nothing when the helper is gone.
using Reply = std::optional<std::variant<std::string, Outcome, StatusReport>>;
using Call = std::function<Reply(FanControlClient&)>;

/// ping, status, auto or write KEY VALUE [float]; empty for anything else. An empty last argument
/// of write is an absent one.
Call parseCall(Arguments arguments);

/// A signed 64-bit decimal number and nothing else: no plus sign, no blanks.
std::optional<std::int64_t> parseInteger(std::string_view text);

/// The text behind enough blanks to fill the width.
std::string padded(const std::string& text, std::size_t width);

/// Prints one line on standard error, after the program's name. Returns the status.
ExitStatus complain(ExitStatus status, const std::string& text);

/// Prints on standard error why the helper refused, if it did.
ExitStatus report(const Outcome& outcome);

/// Says on standard error why the last call got no answer.
ExitStatus reportUnreachable(const FanControlClient& client);

}  // namespace quorvane::fanctl
