// Faults at the daemon's writes to the simulated hardware, and a kernel before Linux 6.16. The
// linker's --wrap puts these calls into a test build of the daemon. The environment variable
// KILL_POINT selects where the process is killed: write n, counted from 0, has point 2n before it
// and point 2n+1 after it. A file "no-memory" in the system root makes the driver throw once while
// it holds the lock on the hardware.
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <new>

#include "Platform/SystemPath.h"

/// Called only on the thread that calls the driver.
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

/// Fails for SO_PASSRIGHTS, so that clients can send descriptors.
extern "C" decltype(setsockopt) __real_setsockopt;
extern "C" int __wrap_setsockopt(int socket, int level, int name, const void* value,
                                 socklen_t size) noexcept {
  constexpr int passRights = 83;
  return name == passRights ? -1 : __real_setsockopt(socket, level, name, value, size);
}
