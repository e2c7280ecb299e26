// Starts the platform layer's own threads: detached, so that exit() may come while they run, with a
// small stack, and with every signal blocked but those that a thread's own fault raises. Callable
// from any thread.
#pragma once

namespace quorvane {

/// Runs entry(argument) on a new thread. 0, or the error number of pthread_create(3).
[[nodiscard]] int startDetachedThread(void* (*entry)(void*), void* argument);

}  // namespace quorvane
