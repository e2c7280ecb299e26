// Shared by the commands of fanctl: exit statuses, the parsing of calls, and the report of a
// failure. Everything runs on the main thread.
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
  refused = 1,     ///< The helper refused or took back, no fan can be read, or output is lost.
  badUsage = 2,    ///< Malformed arguments, or a malformed line of a batch.
  unreachable = 3  ///< The helper cannot be reached, closed the connection or did not reply.
};

using Arguments = std::span<const std::string_view>;
/// A call's reply, or nothing if the helper is gone.
using Reply = std::optional<std::variant<std::string, Outcome, StatusReport>>;
using Call = std::function<Reply(FanControlClient&)>;

/// Parses ping, status, auto or write KEY VALUE [float]; returns an empty call for anything else.
/// An empty last argument of write counts as absent.
Call parseCall(Arguments arguments);

/// Parses a signed 64-bit decimal number, without plus sign and blanks.
std::optional<std::int64_t> parseInteger(std::string_view text);

/// Returns the text, with blanks in front up to the width.
std::string padded(const std::string& text, std::size_t width);

/// Prints one line on standard error, after the program's name. Returns the status.
ExitStatus complain(ExitStatus status, const std::string& text);

/// Prints on standard error why the helper refused, if it did.
ExitStatus report(const Outcome& outcome);

/// Reports on standard error why the last call got no reply.
ExitStatus reportUnreachable(const FanControlClient& client);

}  // namespace quorvane::fanctl
