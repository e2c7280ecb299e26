// What the conformance suite needs of an implementation beyond the dispatch calls: a way to wait,
// and a signal. Implemented once for each, beside the tests that hold for that one only.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>

namespace quorvane::dispatchtest {

/// Lets blocks run and time pass until the predicate, which reads what the mutex guards, is true.
/// False when it does not become true in any reasonable time. Also from a block.
bool waitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& changed,
               const std::function<bool()>& predicate);

/// Sends the process a signal for which it has a source.
void sendSignal(int signal);

}  // namespace quorvane::dispatchtest
