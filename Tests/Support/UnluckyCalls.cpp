// What may befall a daemon, between it and the calls that it makes: a test build of it has these in
// their place, by the linker's --wrap. The process is killed where the environment variable
// KILL_POINT says, at an even number before a call of the driver and at an odd one after it,
// counted from 0. While the root has a file "clock-set-back", the wall clock shows an hour ago.
#include <IOKit/IOKitLib.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>

#include "Platform/SystemPath.h"

/// On the one thread that calls the driver.
static void passKillPoint() {
  static int passed = 0;
  const char* point = getenv("KILL_POINT");
  if (point != nullptr && passed++ == std::atoi(point)) kill(getpid(), SIGKILL);
}

extern "C" {

decltype(IOConnectCallStructMethod) __real_IOConnectCallStructMethod;
kern_return_t __wrap_IOConnectCallStructMethod(mach_port_t connection, uint32_t selector,
                                               const void* input, size_t inputSize, void* output,
                                               size_t* outputSize) {
  passKillPoint();
  const kern_return_t result =
      __real_IOConnectCallStructMethod(connection, selector, input, inputSize, output, outputSize);
  passKillPoint();
  return result;
}

decltype(clock_gettime) __real_clock_gettime;
int __wrap_clock_gettime(clockid_t clock, timespec* now) {
  const std::string mark = quorvane::systemPath("/clock-set-back");
  const int result = __real_clock_gettime(clock, now);
  if (clock == CLOCK_REALTIME && access(mark.c_str(), F_OK) == 0) now->tv_sec -= 3600;
  return result;
}

time_t __wrap_time(time_t* /*null, as everybody calls it*/) {
  timespec now{};
  __wrap_clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec;
}

}  // extern "C"
