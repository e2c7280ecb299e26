// fanctl batch: reads commands from a script and answers each with one line, on one connection.
#pragma once

#include <chrono>
#include <cstdio>

#include "Tools/FanctlCommand.h"

namespace quorvane::fanctl {

/// Twice the longest manual period.
inline constexpr std::chrono::hours maxSleep{1};

/// Executes the lines of `commands` until they end, until one is malformed (badUsage) or until the
/// helper is gone (unreachable). Flushes each answer before it reads the next line.
///
/// A line is a command and its arguments, separated by tabs: ping, status, auto, write KEY VALUE
/// [float], sleep SECONDS. The answers are the ping text; the status as key=value fields separated
/// by tabs; otherwise "true", or "false", a tab and the helper's message. A tab or line feed in a
/// text of the helper becomes a blank. A key cannot contain one.
ExitStatus runBatch(FanControlClient& client, std::FILE* commands, std::FILE* answers);

}  // namespace quorvane::fanctl
