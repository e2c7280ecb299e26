// The one function that the conformance suite needs beyond the dispatch calls. Each implementation
// of dispatch has its own definition.
#pragma once

#include <chrono>

namespace quorvane::dispatchtest {

/// Lets time pass. Also callable from a block. On return, every timer with an earlier deadline has
/// put its handler onto its queue.
void pass(std::chrono::milliseconds span);

}  // namespace quorvane::dispatchtest
