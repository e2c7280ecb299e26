#include "Platform/Clock.h"

#include <ctime>

namespace quorvane {

std::chrono::nanoseconds monotonicTime() {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);  // Cannot fail for a clock that every kernel in use has.
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

}  // namespace quorvane
