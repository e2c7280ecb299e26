// The dispatch calls on one thread with a virtual clock, linked instead of the real layer. Blocks
// run and time passes only in the calls of a test. There is one queue, because the helper makes
// one, and there are no signals. A sync that would block forever, onto the suspended queue or from
// a block on it, aborts. An exception in a sync leaves the next runUntilIdle(), because macOS
// declares dispatch_sync_f as non-throwing. A block may call elapse() and advance(), which run
// nothing meanwhile.
#pragma once

#include <chrono>
#include <vector>

namespace quorvane::virtualdispatch {

void runUntilIdle();

/// Lets time pass as on an idle machine. Stops at each deadline, in order, and runs until idle.
void advance(std::chrono::nanoseconds duration);
/// Lets time pass without running a block, as in a long block or while the machine sleeps. Timers
/// that become due only put their handlers onto the queue, in the order of their deadlines.
void elapse(std::chrono::nanoseconds duration);

/// The remaining times of the timers that are not due yet, in order.
std::vector<std::chrono::nanoseconds> deadlines();

/// Resumes the queue and runs its blocks, to free them when a simulated process has ended. An
/// exception ends only its block. Sets the clock to 0.
void reset();

}  // namespace quorvane::virtualdispatch
