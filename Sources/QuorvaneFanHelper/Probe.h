// Probe mode: a read-only listing of the fans on an SMC connection of its own, from the main
// thread. Writes nothing to the SMC, the audit log or the unified log.
#pragma once

#include <functional>
#include <string>

namespace quorvane {

/// Hands the listing to `print`, one line a call and without line ends. Yields the exit status: 0,
/// or 1 when the SMC could not be opened.
int listFans(const std::function<void(const std::string& line)>& print);

/// Prints the listing to standard output and ends the process.
[[noreturn]] void runProbe();

}  // namespace quorvane
