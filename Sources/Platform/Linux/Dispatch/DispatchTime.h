// The arithmetic of dispatch_time(), the same on every clock. A pure function.
#pragma once

#include <dispatch/dispatch.h>

#include <cstdint>
#include <limits>

namespace quorvane::dispatch {

/// Returns the time `delta` nanoseconds after `when`, or after `now` if `when` is
/// DISPATCH_TIME_NOW. A time beyond the range of a signed 64-bit number becomes
/// DISPATCH_TIME_FOREVER. A time before the clock's start becomes 1, because 0 means now.
inline dispatch_time_t timeAfter(dispatch_time_t when, std::int64_t delta, std::uint64_t now) {
  constexpr std::uint64_t last = std::numeric_limits<std::int64_t>::max();
  if (when == DISPATCH_TIME_FOREVER) return when;
  const std::uint64_t base = when == DISPATCH_TIME_NOW ? now : when;
  const std::uint64_t distance = static_cast<std::uint64_t>(delta);
  if (delta < 0) return base > 0 - distance ? base + distance : 1;
  return base <= last && distance <= last - base ? base + distance : DISPATCH_TIME_FOREVER;
}

}  // namespace quorvane::dispatch
