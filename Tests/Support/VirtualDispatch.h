// The dispatch calls on one thread and a clock of their own, linked in the place of the real layer:
// nothing runs and no time passes unless the test says so. Blocks run in the order in which they
// were submitted, over all queues. What the real layer would wait for in vain (a sync onto a
// suspended queue, or onto one that waits for the caller) ends the process with a message.
//
// All but reset() may be called by a block as well: that runs everything but the queues which wait
// for the block.
#pragma once

#include <chrono>
#include <cstddef>

namespace quorvane::virtualdispatch {

/// Runs the first block whose queue is neither suspended nor busy. False when there is none.
bool runOne();
void runUntilIdle();

/// Lets time pass as on an idle machine: stops at each deadline, in order, and runs until idle.
void advance(std::chrono::nanoseconds duration);
/// Lets time pass with nothing running, as in a long block or while the machine sleeps: timers that
/// fall due only put their handlers onto their queues, in the order of their deadlines.
void elapse(std::chrono::nanoseconds duration);
/// Since the last reset.
std::chrono::nanoseconds now();

/// Puts the handlers of the signal's sources onto their queues. False when it has none, and would
/// have met its default action.
bool deliverSignal(int signal);

/// Timers that will still fire.
std::size_t armedTimers();
/// Blocks that have not begun, those on suspended queues included.
std::size_t queuedBlocks();

/// For the next test: time zero, nothing queued and no source that fires. Who still holds a queue
/// or a source releases it as usual. Blocks that had not begun never run; what they own is not
/// freed.
void reset();

}  // namespace quorvane::virtualdispatch
