// The clock of dispatch's timers, for programs that measure time as the helper does. Callable from
// any thread.
#pragma once

#include <chrono>

namespace quorvane {

/// Returns the monotonic time since an unspecified moment. While the machine sleeps, it advances on
/// Linux (CLOCK_BOOTTIME) and stops on macOS (CLOCK_UPTIME_RAW, which is mach_absolute_time() in
/// nanoseconds; CLOCK_MONOTONIC would advance there, see clock_gettime(3)).
std::chrono::nanoseconds monotonicTime();

}  // namespace quorvane
