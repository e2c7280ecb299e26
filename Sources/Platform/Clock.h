// The clock behind dispatch's timers, for a program that has to count as the helper does. Callable
// from any thread.
#pragma once

#include <chrono>

namespace quorvane {

/// Monotonic, counted from an unspecified moment. While the machine sleeps it goes on on Linux
/// (CLOCK_BOOTTIME) and stands still on macOS (CLOCK_UPTIME_RAW, which is mach_absolute_time() in
/// nanoseconds; CLOCK_MONOTONIC would go on there, see clock_gettime(3)).
std::chrono::nanoseconds monotonicTime();

}  // namespace quorvane
