// What the program relies on in dispatch. Linked against the real layer and against the virtual
// one, so that a test on the virtual one says something about the program.
#include <gtest/gtest.h>

#include <atomic>
#include <ctime>
#include <memory>
#include <optional>
#include <string>

#include "Platform/Dispatch.h"
#include "Support/DispatchUnderTest.h"

namespace quorvane::dispatchtest {
namespace {

using dispatch::OneShotTimer;
using dispatch::Queue;
using namespace std::chrono_literals;

class DispatchConformance : public testing::Test {
 protected:
  auto says(const char* word) {
    return [this, word] { words += word; };
  }
  /// All words, once they end in this one.
  std::string waitFor(const std::string& last) {
    std::string seen;
    for (int turn = 0; turn < 5000 && !seen.ends_with(last); ++turn) {
      pass(1ms);
      queue.sync([&] { seen = words; });
    }
    return seen;
  }

  std::string words;  // of the queue
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
  OneShotTimer(queue, 10ms, says("cancelled "));  // holds up none behind it
  const std::clock_t before = std::clock();
  pass(320ms);
  EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 10) << "waiting takes processor time";
  EXPECT_EQ(waitFor("late"), "past early between late");
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
  EXPECT_EQ(waitFor("renewed"), "renewed");
}

struct Service {
  const Queue queue{"service"};
  std::optional<OneShotTimer> lease;
};

TEST_F(DispatchConformance, WhatItsOwnHandlerReleasesRunsOutAndIsFreed) {
  std::atomic<int> freed = 0;
  for (int i = 0; i < 20; ++i) {
    const std::shared_ptr<void> token(nullptr, [&freed](void*) { ++freed; });
    const auto service = std::make_shared<Service>();
    service->queue.async([service, token] {
      service->lease.emplace(service->queue, 1ms, [own = service, token]() mutable {
        own->queue.async([token] {});
        own.reset();  // and with it the timer and the queue
        EXPECT_GT(token.use_count(), 1) << "freed while it runs";
      });
    });
  }
  for (int turn = 0; turn < 5000 && freed < 20; ++turn) pass(1ms);
  EXPECT_EQ(freed, 20);
}

}  // namespace
}  // namespace quorvane::dispatchtest
