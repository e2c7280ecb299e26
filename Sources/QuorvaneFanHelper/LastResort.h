// What a daemon still does for the fans when a failure ends it by std::terminate(), such as an
// exception that nobody catches. Every fan that the SMC counts goes into automatic mode, over a
// connection of its own, because the queue may be what failed. Then the process ends as it would
// have. Runs on the thread that failed.
#pragma once

#include <mutex>

namespace quorvane {

/// For the rest of the process's life. Called once, from the main thread, before any fan is forced.
void installLastResort();

/// The last resort takes it first and keeps it. Each write that forces a fan holds it, so that none
/// comes behind the last resort; and exit() must not be called without it, or a fan could be left
/// with the last resort half done. Recursive, because a failure that unwinds nothing leaves it with
/// the thread that failed. Callable from any thread.
std::recursive_mutex& forcingTurn();

}  // namespace quorvane
