// fanctl batch: commands from a script, answers to a script, one line each, over one connection.
#pragma once

#include <chrono>
#include <cstdio>

#include "Tools/FanctlCommand.h"

namespace quorvane::fanctl {

/// Twice the longest manual period.
inline constexpr std::chrono::hours maxSleep{1};

/// Carries out the lines of `commands` until its end, until one is malformed (badUsage) or until
/// the helper is gone (unreachable). Each answer is flushed before the next line is read.
///
/// A line is a command and its arguments, separated by tabs: ping, status, auto,
/// write KEY VALUE [float], sleep SECONDS. The answers: the ping text; the status as key=value
/// fields separated by tabs; for the others "true", or "false", a tab and the helper's message.
/// A tab or line feed inside a text of the helper is shown as a blank; a key cannot hold one.
ExitStatus runBatch(FanControlClient& client, std::FILE* commands, std::FILE* answers);

}  // namespace quorvane::fanctl
