// The real dispatch layer under the conformance suite, and what is true of it alone.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <optional>

#include "Platform/Dispatch.h"
#include "Support/DispatchUnderTest.h"

namespace quorvane::dispatchtest {

using dispatch::OneShotTimer;
using dispatch::Queue;
using namespace std::chrono_literals;

void pass(std::chrono::milliseconds span) {
  const Queue clock("clock");
  std::promise<void> passed;
  const OneShotTimer timer(clock, span, [&passed] { passed.set_value(); });
  passed.get_future().wait();
  clock.sync([] {});  // the handler has let go of the promise
}

namespace {

struct Service {
  const Queue queue{"service"};
  std::optional<OneShotTimer> lease;
};

TEST(LinuxDispatch, WhatItsOwnHandlerReleasesRunsOutAndIsFreed) {
  std::atomic<int> freed = 0;
  for (int i = 0; i < 20; ++i) {
    const std::shared_ptr<void> token(nullptr, [&freed](void*) { ++freed; });
    const auto service = std::make_shared<Service>();
    service->queue.async([service, token] {
      service->lease.emplace(service->queue, 1ms, [own = service, token]() mutable {
        own->queue.async([token] {});
        own.reset();
      });
    });
  }
  for (int turn = 0; turn < 5000 && freed < 20; ++turn) pass(1ms);
  EXPECT_EQ(freed, 20);
}

}  // namespace
}  // namespace quorvane::dispatchtest
