// A thread whose descriptor table no other thread shares. Its descriptors are closed as soon as the
// process ends, even while another thread hangs in the kernel. A process that it starts never holds
// a peer's socket, not even between fork and exec, where that process might have to close it.
#pragma once

#include <functional>

namespace quorvane::xpc {

/// Runs the block on that thread and returns when it has run. Returns false, without running the
/// block, if the thread has no table of its own. REQUIRES: the first call, which starts the thread,
/// comes before any peer's. The block does not throw.
[[nodiscard]] bool runIsolated(const std::function<void()>& block);

}  // namespace quorvane::xpc
