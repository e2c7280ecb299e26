// Preloaded where valgrind counts, for releases up to 3.19 know no pidfd_open(2) and would have the
// helper refuse every peer. What it yields here is an event that never comes: a peer that lives.
#include <dlfcn.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>

#include <cstdarg>

extern "C" long syscall(long number, ...) noexcept {
  if (number == SYS_pidfd_open) return eventfd(0, EFD_CLOEXEC);
  va_list list;
  va_start(list, number);
  long arguments[6];
  for (long& argument : arguments) argument = va_arg(list, long);
  va_end(list);
  using Syscall = long(long, ...);
  static const auto next = reinterpret_cast<Syscall*>(dlsym(RTLD_NEXT, "syscall"));
  return next(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4],
              arguments[5]);
}
