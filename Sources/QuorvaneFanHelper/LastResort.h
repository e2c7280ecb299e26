// The restore when a failure ends the daemon by std::terminate(), for example an uncaught
// exception. Puts every fan that the SMC counts into automatic mode, over a connection of its own,
// because the queue may be what failed. Then the process ends as it would have. Runs on the thread
// that failed.
#pragma once

#include <mutex>

namespace quorvane {

/// Lasts for the rest of the process. Called once, on the main thread, before any fan is forced.
void installLastResort();

/// Each write that forces a fan holds this mutex. The last resort takes it first and keeps it, so
/// that no forcing write follows. exit() must not be called without it: it could interrupt the last
/// resort and leave a fan forced. Recursive, because a failure that unwinds nothing leaves it
/// locked by the thread that failed. Callable from any thread.
std::recursive_mutex& forcingTurn();

}  // namespace quorvane
