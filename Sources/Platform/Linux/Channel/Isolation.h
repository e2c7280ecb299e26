// A thread with a table of descriptors that no other thread shares. What it opens is closed as soon
// as the process ends, even while another thread hangs in the kernel. What it starts never holds a
// peer's socket, not even between fork and exec, when a close could fall to the new process.
#pragma once

#include <functional>

namespace quorvane::xpc {

/// Runs the block on that thread and returns when it has run. The first call makes the thread and
/// has to come before any peer's. False when the thread has no table of its own; the block did not
/// run. The block must not throw.
[[nodiscard]] bool runIsolated(const std::function<void()>& block);

}  // namespace quorvane::xpc
