#include "Platform/Linux/DetachedThread.h"

#include <pthread.h>
#include <signal.h>

#include <cstddef>
#include <initializer_list>

namespace quorvane {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool sanitized = true;
#elif defined(__has_feature)
constexpr bool sanitized = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool sanitized = false;
#endif

// Several times the largest objects on these stacks, the simulated SMC's machine and its file, and
// room for libc. Frames under the sanitizers are several times as large.
constexpr std::size_t stackBytes = std::size_t{sanitized ? 1024 : 256} * 1024;

/// Returns all signals except those that a thread raises by its own fault. A crash handler could
/// not catch these if they were blocked.
sigset_t allButFaults() {
  sigset_t signals;
  sigfillset(&signals);
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP}) {
    sigdelset(&signals, fault);
  }
  return signals;
}

}  // namespace

int startDetachedThread(void* (*entry)(void*), void* argument) {
  pthread_attr_t attributes;
  if (const int error = pthread_attr_init(&attributes); error != 0) return error;
  pthread_attr_setstacksize(&attributes, stackBytes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);

  // A thread inherits its creator's mask, so the new one never takes a signal.
  const sigset_t blocked = allButFaults();
  sigset_t before;
  pthread_sigmask(SIG_SETMASK, &blocked, &before);
  pthread_t thread = 0;
  const int error = pthread_create(&thread, &attributes, entry, argument);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  pthread_attr_destroy(&attributes);
  return error;
}

}  // namespace quorvane
