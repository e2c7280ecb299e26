// Faults between a daemon and the calls that it makes. The linker's --wrap puts these functions
// into a test build of the daemon. The environment variable KILL_POINT says where the process is
// killed: an even number means before a call of the driver, an odd one after it, counted from 0.
// Files in the root cause the other faults. While "clock-set-back" exists, the wall clock is an
// hour late. "no-memory" makes the driver throw once while it holds the hardware. "stop-early"
// raises SIGTERM once, as soon as a thread blocks it.
#include <IOKit/IOKitLib.h>
#include <signal.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <new>

#include "Platform/SystemPath.h"

/// On the one thread that calls the driver.
static void passKillPoint() {
  static int passed = 0;
  const char* point = getenv("KILL_POINT");
  if (point != nullptr && passed++ == std::atoi(point)) kill(getpid(), SIGKILL);
}

/// True once for each time that the root has such a file.
static bool occurs(const char* what) {
  return unlink(quorvane::systemPath(what).c_str()) == 0;
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

decltype(pwrite) __real_pwrite;
ssize_t __wrap_pwrite(int file, const void* bytes, size_t count, off_t offset) {
  if (occurs("/no-memory")) throw std::bad_alloc();
  return __real_pwrite(file, bytes, count, offset);
}

decltype(pthread_sigmask) __real_pthread_sigmask;
int __wrap_pthread_sigmask(int how, const sigset_t* signals, sigset_t* before) noexcept {
  const int result = __real_pthread_sigmask(how, signals, before);
  if (how == SIG_BLOCK && occurs("/stop-early")) kill(getpid(), SIGTERM);
  return result;
}

/// As on a kernel before Linux 6.16, which knows no SO_PASSRIGHTS.
decltype(setsockopt) __real_setsockopt;
int __wrap_setsockopt(int socket, int level, int name, const void* value, socklen_t size) noexcept {
  if (name != 83) return __real_setsockopt(socket, level, name, value, size);
  errno = ENOPROTOOPT;
  return -1;
}

decltype(clock_gettime) __real_clock_gettime;
int __wrap_clock_gettime(clockid_t clock, timespec* now) {
  const std::string mark = quorvane::systemPath("/clock-set-back");
  const int result = __real_clock_gettime(clock, now);
  if (clock == CLOCK_REALTIME && access(mark.c_str(), F_OK) == 0) now->tv_sec -= 3600;
  return result;
}

}  // extern "C"
