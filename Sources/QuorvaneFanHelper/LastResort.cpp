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

/// Memory for a process that has none left. Measured on Linux: a restore of ten fans needs 40 KB at
/// once, 33 KB of them for libc to read a folder. glibc would return a block of 128 KiB to the
/// kernel, and another process might take it.
constexpr std::size_t reserveBytes = std::size_t{64} * 1024;

/// A driver that hangs must not keep this process from ending, because the next one waits for that.
/// A restore takes milliseconds.
constexpr unsigned timeLimitSeconds = 5;

const char* reserve = nullptr;
std::terminate_handler endAsBefore = nullptr;
std::atomic<pthread_t> failedThread{};

/// Limits the rest of the process, which may also block on its standard error.
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
      // Continues with the other fans. There is nobody to report to.
    }
  }
}

void restoreFansAndEnd() {
  pthread_t first{};
  if (!failedThread.compare_exchange_strong(first, pthread_self())) {
    // Another thread failed first and still needs the process.
    while (pthread_equal(first, pthread_self()) == 0) pause();
    endAsBefore();  // This thread failed first, and has failed again.
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
  // Zeros, so that its pages exist. Allocated on the main thread, because glibc gives that thread's
  // heap to any thread that has used up its own.
  reserve = new char[reserveBytes]();
  endAsBefore = std::set_terminate(restoreFansAndEnd);
}

std::recursive_mutex& forcingTurn() {
  static const NoDestructor<std::recursive_mutex> turn;
  return *turn;
}

}  // namespace quorvane
