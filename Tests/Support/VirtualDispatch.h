// The dispatch calls on one thread and a clock of their own, linked in the place of the real layer:
// nothing runs and no time passes unless the test says so. Each queue runs its blocks in order, an
// older queue before a younger one. A sync that would wait for ever, onto a suspended queue or onto
// one that waits for the caller, ends the process; what its block throws comes out of the next
// runUntilIdle(), because macOS declares that dispatch_sync_f throws nothing. All but drain() may
// be called by a block as well: that runs everything but the queues which wait for the block. There
// are no signals here.
#pragma once

#include <chrono>
#include <vector>

namespace quorvane::virtualdispatch {

void runUntilIdle();

/// Lets time pass as on an idle machine: stops at each deadline, in order, and runs until idle.
void advance(std::chrono::nanoseconds duration);
/// Lets time pass with nothing running, as in a long block or while the machine sleeps: timers that
/// fall due only put their handlers onto their queues, in the order of their deadlines.
void elapse(std::chrono::nanoseconds duration);
std::chrono::nanoseconds now();

/// Of the timers that will still fire, in order.
std::vector<std::chrono::nanoseconds> deadlines();

/// The process is dead, or all but: runs what is queued, on suspended queues too, in order to free
/// it. What a block throws only ends that block. The clock goes on.
void drain();
/// The same, and the clock begins anew.
void reset();

}  // namespace quorvane::virtualdispatch
