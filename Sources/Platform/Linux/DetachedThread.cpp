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

// Room for the largest things in a frame here, the simulated SMC's machine and its file, a few
// times over and for libc. The sanitizers' frames take several times as much.
constexpr std::size_t stackBytes = std::size_t{sanitized ? 1024 : 256} * 1024;

/// All signals but those that a thread raises by its own fault: blocked, they would not be caught
/// any more by whoever looks for the cause of a crash.
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

  // A thread starts with the mask of its maker, so there is no moment in which it takes a signal.
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
