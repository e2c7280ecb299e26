// What the conformance suite needs of an implementation beyond the dispatch calls. Implemented once
// for each, beside the tests that hold for that one only.
#pragma once

#include <chrono>

namespace quorvane::dispatchtest {

/// Lets that time pass, also within a block. On return every timer with an earlier deadline has put
/// its handler onto its queue.
void pass(std::chrono::milliseconds span);

}  // namespace quorvane::dispatchtest
