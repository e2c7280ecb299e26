// Probe mode: lists the fans over an SMC connection of its own, on the main thread. Writes nothing
// to the SMC, the audit log or the unified log.
#pragma once

#include <functional>
#include <string>

namespace quorvane {

/// Passes the listing to `print`, one line a call, without line ends. Returns the exit status: 0,
/// or 1 if the SMC cannot be opened.
int listFans(const std::function<void(const std::string& line)>& print);

/// Prints the listing to standard output and ends the process.
[[noreturn]] void runProbe();

}  // namespace quorvane
