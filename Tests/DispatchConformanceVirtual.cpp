// The virtual dispatch under the conformance suite, and what is true of it alone.
#include <gtest/gtest.h>

#include <string>

#include "Platform/Dispatch.h"
#include "Support/DispatchUnderTest.h"
#include "Support/VirtualDispatch.h"

namespace quorvane::dispatchtest {

using namespace std::chrono_literals;

bool waitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& /*changed*/,
               const std::function<bool()>& predicate) {
  for (int step = 0; step < 10'000 && !predicate(); ++step) {
    lock.unlock();
    if (!virtualdispatch::runOne()) virtualdispatch::advance(1ms);
    lock.lock();
  }
  return predicate();
}

void sendSignal(int signal) {
  EXPECT_TRUE(virtualdispatch::deliverSignal(signal));
}

namespace {

class VirtualDispatch : public testing::Test {
 protected:
  void SetUp() override { virtualdispatch::reset(); }

  auto add(const char* word) {
    return [this, word] { text += word + std::to_string(virtualdispatch::now() / 1s) + ' '; };
  }

  const dispatch::Queue queue{"first"};
  const dispatch::Queue other{"second"};
  std::string text;
};

TEST_F(VirtualDispatch, TimePassesFromDeadlineToDeadline) {
  const dispatch::OneShotTimer late(other, 1800s, add("late "));
  const dispatch::OneShotTimer early(queue, 20s, [this] {
    add("early ")();
    virtualdispatch::elapse(5s);  // a block that takes its time
    other.async(add("after "));
  });
  virtualdispatch::advance(1799s);
  EXPECT_EQ(text, "early 20 after 25 ");
  EXPECT_EQ(virtualdispatch::armedTimers(), 1U);
  virtualdispatch::elapse(2s);
  EXPECT_EQ(virtualdispatch::armedTimers(), 0U);
  EXPECT_EQ(text, "early 20 after 25 ");
  virtualdispatch::runUntilIdle();
  EXPECT_EQ(text, "early 20 after 25 late 1801 ");
}

TEST_F(VirtualDispatch, BlocksRunInTheOrderOfAllQueuesButForSync) {
  queue.async(add("a"));
  other.async(add("b"));
  queue.async(add("c"));
  EXPECT_TRUE(virtualdispatch::runOne());
  EXPECT_EQ(text, "a0 ");
  queue.sync(add("sync"));
  EXPECT_EQ(text, "a0 c0 sync0 ");
  virtualdispatch::runUntilIdle();
  EXPECT_EQ(text, "a0 c0 sync0 b0 ");
}

TEST_F(VirtualDispatch, ResetLeavesNothingOfTheTestBefore) {
  const dispatch::OneShotTimer timer(queue, 20s, add("timer"));
  const dispatch::SignalSource source(15, add("signal"));
  queue.suspend();
  queue.async(add("block"));
  virtualdispatch::advance(5s);
  EXPECT_EQ(virtualdispatch::queuedBlocks(), 1U);
  virtualdispatch::reset();
  EXPECT_EQ(virtualdispatch::queuedBlocks(), 0U);
  EXPECT_FALSE(virtualdispatch::deliverSignal(15));
  EXPECT_EQ(virtualdispatch::now(), 0s);
  dispatch_resume(queue.handle());
  virtualdispatch::advance(30s);
  EXPECT_EQ(text, "");
}

}  // namespace
}  // namespace quorvane::dispatchtest
