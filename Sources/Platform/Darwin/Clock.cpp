#include "Platform/Clock.h"

#include <ctime>

namespace quorvane {

std::chrono::nanoseconds monotonicTime() {
  return std::chrono::nanoseconds(clock_gettime_nsec_np(CLOCK_UPTIME_RAW));
}

}  // namespace quorvane
