#include "QuorvaneFanHelper/LastResort.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <exception>
#include <string>

#include "Platform/NoDestructor.h"
#include "QuorvaneFanHelper/HelperSMC.h"

namespace quorvane {
namespace {

/// Memory for when there is none. The restore was measured on Linux to need 40 KB at once for ten
/// fans, of which 33 KB are libc's for reading a folder. glibc would give a block of 128 KiB back
/// to the kernel, where another process may take it.
constexpr std::size_t reserveBytes = std::size_t{64} * 1024;

/// A driver that hangs must not keep the process, and so the next one, from its end. A restore
/// takes milliseconds.
constexpr unsigned timeLimitSeconds = 5;

const char* reserve = nullptr;
std::terminate_handler endAsBefore = nullptr;
std::atomic<pthread_t> failedThread{};

/// Of the whole rest of the process, which may also wait for whoever reads its standard error.
void limitTime() {
  signal(SIGALRM, SIG_DFL);
  sigset_t own;
  sigemptyset(&own);
  sigaddset(&own, SIGALRM);
  pthread_sigmask(SIG_UNBLOCK, &own, nullptr);
  alarm(timeLimitSeconds);
}

void restoreFans() {
  HelperSMC smc;
  smc.connect();
  const unsigned count = std::max<unsigned>(1, smc.readByte("FNum").value_or(0));
  for (unsigned fan = 0; fan < count; ++fan) {
    try {
      smc.writeByte("F" + std::to_string(fan) + "Md", 0);
    } catch (...) {
      // The other fans still want their turn, and there is nobody to tell.
    }
  }
}

void restoreFansAndEnd() {
  pthread_t first{};
  if (!failedThread.compare_exchange_strong(first, pthread_self())) {
    // Another thread failed before this one and needs the process a moment longer.
    while (pthread_equal(first, pthread_self()) == 0) pause();
    endAsBefore();  // This one did, and has failed again: nothing is left to try.
  }
  limitTime();
  delete[] reserve;
  forcingTurn().lock();
  try {
    restoreFans();
  } catch (...) {
    // Without a connection there is nothing to restore.
  }
  endAsBefore();
}

}  // namespace

void installLastResort() {
  forcingTurn();
  // Zeros, so that its pages are there. On the main thread, whose heap glibc gives to any thread
  // that has used up its own.
  reserve = new char[reserveBytes]();
  endAsBefore = std::set_terminate(restoreFansAndEnd);
}

std::recursive_mutex& forcingTurn() {
  static const NoDestructor<std::recursive_mutex> turn;
  return *turn;
}

}  // namespace quorvane
