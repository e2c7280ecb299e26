// The dispatch calls on one thread and a clock of their own, linked in the place of the real layer:
// nothing runs and no time passes unless the test says so. There is one queue, because the helper
// makes one, and there are no signals. A sync that would wait for ever, onto the suspended queue or
// from a block on it, ends the process; what its block throws comes out of the next runUntilIdle(),
// because macOS declares that dispatch_sync_f throws nothing. A block may call elapse() and
// advance() too: nothing else runs meanwhile.
#pragma once

#include <chrono>
#include <vector>

namespace quorvane::virtualdispatch {

void runUntilIdle();

/// Lets time pass as on an idle machine: stops at each deadline, in order, and runs until idle.
void advance(std::chrono::nanoseconds duration);
/// Lets time pass with nothing running, as in a long block or while the machine sleeps: timers that
/// fall due only put their handlers onto the queue, in the order of their deadlines.
void elapse(std::chrono::nanoseconds duration);

/// How long it is to each of the timers that will still fire, in order.
std::vector<std::chrono::nanoseconds> deadlines();

/// The process is dead, or all but: runs what is queued, though the queue is suspended, in order
/// to free it. What a block throws only ends that block. The clock begins anew.
void reset();

}  // namespace quorvane::virtualdispatch
