// The virtual dispatch under the conformance suite.
#include "Support/DispatchUnderTest.h"
#include "Support/VirtualDispatch.h"

void quorvane::dispatchtest::pass(std::chrono::milliseconds span) {
  virtualdispatch::advance(span);
}
