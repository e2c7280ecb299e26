// Starts the platform layer's own threads: detached, so that exit() can run while they do; with a
// small stack; with all signals blocked except a thread's own faults. Callable from any thread.
#pragma once

namespace quorvane {

/// Runs entry(argument) on a new thread. Returns 0 or an error number of pthread_create(3).
[[nodiscard]] int startDetachedThread(void* (*entry)(void*), void* argument);

}  // namespace quorvane
