// Faults of a daemon at its writes to the simulated hardware, and a kernel before Linux 6.16. The
// linker's --wrap puts these calls into a test build of the daemon. The environment variable
// KILL_POINT says where the process is killed: an even number means before a write, an odd one
// after it, counted from 0. A file "no-memory" in the root makes the driver throw once while it
// holds the hardware.
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <new>

#include "Platform/SystemPath.h"

/// On the one thread that calls the driver.
static void passKillPoint() {
  static int passed = 0;
  const char* point = getenv("KILL_POINT");
  if (point != nullptr && passed++ == std::atoi(point)) kill(getpid(), SIGKILL);
}

extern "C" decltype(pwrite) __real_pwrite;
extern "C" ssize_t __wrap_pwrite(int file, const void* bytes, size_t count, off_t offset) {
  if (unlink(quorvane::systemPath("/no-memory").c_str()) == 0) throw std::bad_alloc();
  passKillPoint();
  const ssize_t result = __real_pwrite(file, bytes, count, offset);
  passKillPoint();
  return result;
}

/// Without SO_PASSRIGHTS clients may send descriptors.
extern "C" decltype(setsockopt) __real_setsockopt;
extern "C" int __wrap_setsockopt(int socket, int level, int name, const void* value,
                                 socklen_t size) noexcept {
  constexpr int passRights = 83;
  return name == passRights ? -1 : __real_setsockopt(socket, level, name, value, size);
}
