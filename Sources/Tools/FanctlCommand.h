// What the commands of fanctl share: exit statuses, the reading of arguments, and how a failed call
// is told. Everything runs on the main thread.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "FanControlClient/FanControlClient.h"

namespace quorvane::fanctl {

enum ExitStatus : int {
  done = 0,        ///< The helper said true.
  refused = 1,     ///< The helper said false.
  badUsage = 2,    ///< Arguments or a line of a batch that make no command.
  unreachable = 3  ///< The helper cannot be reached, cut us off or did not answer.
};

/// A signed 64-bit decimal number and nothing else: no plus sign, no blanks.
std::optional<std::int64_t> parseInteger(std::string_view text);

struct WriteRequest {
  std::string key;
  std::int64_t value;
  bool isFloat;
};

/// What follows the word "write": KEY VALUE [float]. An empty third argument is an absent one.
std::optional<WriteRequest> parseWrite(std::span<const std::string_view> arguments);

/// Says on standard error why the last call came to nothing.
ExitStatus reportUnreachable(const FanControlClient& client);

/// Says on standard error what the helper refused with, or why it gave no answer.
ExitStatus report(const FanControlClient& client,
                  const std::optional<FanControlClient::Outcome>& outcome);

}  // namespace quorvane::fanctl
