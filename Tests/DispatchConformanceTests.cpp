// The properties of dispatch that the programs rely on. The suite is linked against the real layer
// and against the virtual one, so that tests on the virtual one are valid for the programs.
#include <gtest/gtest.h>

#include <ctime>
#include <optional>
#include <string>

#include "Platform/Dispatch.h"
#include "Support/DispatchUnderTest.h"

namespace quorvane::dispatchtest {

using dispatch::OneShotTimer;
using dispatch::Queue;
using namespace std::chrono_literals;

class DispatchConformance : public testing::Test {
 protected:
  auto says(const char* word) {
    return [this, word] { words += word; };
  }

  std::string words;  // appended on the queue
  const Queue queue{"suite"};
};

TEST_F(DispatchConformance, BlocksRunInOrderAndSyncWaitsItsTurn) {
  queue.async([] { pass(3ms); });
  for (const char* word : {"1 ", "2 ", "3 "}) queue.async(says(word));
  queue.sync(says("sync"));
  EXPECT_EQ(words, "1 2 3 sync");
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_DEATH(queue.sync([this] { queue.sync([] {}); }), "");
}

TEST_F(DispatchConformance, TimersFireOnceInTheOrderOfTheirDeadlines) {
  std::optional<OneShotTimer> between;
  const OneShotTimer late(queue, 300ms, says("late"));
  const OneShotTimer early(queue, 20ms, [&] {
    between.emplace(queue, 1ms, says("between "));
    words += "early ";
  });
  const OneShotTimer never(queue, std::chrono::nanoseconds::max(), says("never "));
  const OneShotTimer past(queue, -1s, says("past "));
  OneShotTimer(queue, 10ms, says("cancelled "));  // delays no timer behind it
  const std::clock_t before = std::clock();
  pass(320ms);
  EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 10) << "waiting takes processor time";
  queue.sync([] {});
  EXPECT_EQ(words, "past early between late");
}

TEST_F(DispatchConformance, CancelledOnItsQueueADueTimerNeverFires) {
  std::optional<OneShotTimer> lease;
  std::optional<OneShotTimer> cap;
  queue.sync([&] {
    lease.emplace(queue, 1ms, says("expired "));
    cap.emplace(queue, 1ms, says("capped "));
    OneShotTimer(queue, 20ms, says("gone "));
    pass(2ms);  // both handlers wait behind this block now
    cap.reset();
    lease.emplace(queue, 30ms, says("renewed"));
  });
  pass(30ms);
  queue.sync([] {});
  EXPECT_EQ(words, "renewed");
}

}  // namespace quorvane::dispatchtest
