// The virtual dispatch under the conformance suite, and what is true of it alone.
#include <gtest/gtest.h>

#include "Platform/Dispatch.h"
#include "Support/DispatchUnderTest.h"
#include "Support/VirtualDispatch.h"

namespace quorvane {

void dispatchtest::pass(std::chrono::milliseconds span) {
  virtualdispatch::advance(span);
}

namespace {

TEST(VirtualDispatch, ASignalReachesItsSourceUnlessAResetComesFirst) {
  int count = 0;
  const dispatch::SignalSource source(15, [&count] { ++count; });
  virtualdispatch::deliverSignal(15);
  virtualdispatch::runUntilIdle();
  EXPECT_EQ(count, 1);
  virtualdispatch::deliverSignal(15);
  virtualdispatch::reset();
  virtualdispatch::runUntilIdle();
  EXPECT_EQ(count, 1);
}

}  // namespace
}  // namespace quorvane
