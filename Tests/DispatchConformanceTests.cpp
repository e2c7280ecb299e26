// What the program relies on in dispatch. Linked against the real layer and against the virtual
// one, so that a test on the virtual one says something about the program.
#include <dispatch/dispatch.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Platform/Dispatch.h"
#include "Support/DispatchUnderTest.h"

namespace quorvane::dispatchtest {
namespace {

using dispatch::OneShotTimer;
using dispatch::Queue;
using namespace std::chrono_literals;

/// What blocks did, as words in order. Any thread.
class Log {
 public:
  void add(const std::string& word) {
    const std::scoped_lock lock(mutex);
    words.push_back(word);
    changed.notify_all();
  }
  /// All words, once this one is among them so many times.
  std::string waitFor(const std::string& word, int count = 1) {
    std::unique_lock lock(mutex);
    EXPECT_TRUE(waitUntil(lock, changed, [&] { return std::ranges::count(words, word) >= count; }))
        << "no \"" << word << "\" came";
    std::string text;
    for (const std::string& each : words) text += (text.empty() ? "" : " ") + each;
    return text;
  }

 private:
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> words;
};

class DispatchConformance : public testing::Test {
 protected:
  /// When it returns, every timer with an earlier deadline has put its handler onto its queue.
  void letPass(std::chrono::milliseconds span) {
    const std::string tick = std::to_string(++tickCount);
    const OneShotTimer timer(clock, span, [this, tick] { ticks.add(tick); });
    ticks.waitFor(tick);
  }

  Log log;

 private:
  Log ticks;
  int tickCount = 0;
  const Queue clock{"clock"};
};

TEST_F(DispatchConformance, BlocksRunInOrderAndSyncWaitsItsTurn) {
  const Queue queue("order");
  queue.async([this] {
    letPass(3ms);
    log.add("busy");
  });
  for (const char* word : {"1", "2", "3"}) queue.async([this, word] { log.add(word); });
  queue.sync([&] {
    queue.async([this] { log.add("later"); });
    log.add("sync");
  });
  EXPECT_EQ(log.waitFor("later"), "busy 1 2 3 sync later");
}

TEST_F(DispatchConformance, SyncOntoTheOwnQueueEndsTheProcess) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  const Queue queue("own");
  EXPECT_DEATH(queue.sync([&] { queue.sync([] {}); }), "dispatch_sync");
}

TEST_F(DispatchConformance, TimesSaturate) {
  constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();
  constexpr std::int64_t least = std::numeric_limits<std::int64_t>::min();
  EXPECT_EQ(dispatch_time(DISPATCH_TIME_NOW, most), DISPATCH_TIME_FOREVER);
  EXPECT_EQ(dispatch_time(DISPATCH_TIME_FOREVER, -1), DISPATCH_TIME_FOREVER);
  EXPECT_EQ(dispatch_time(1000, 20), 1020U);
  EXPECT_EQ(dispatch_time(1000, -20), 980U);
  EXPECT_EQ(dispatch_time(1000, most - 1000), static_cast<std::uint64_t>(most));
  EXPECT_EQ(dispatch_time(1000, most - 999), DISPATCH_TIME_FOREVER);
  EXPECT_EQ(dispatch_time(1000, least), 1U);
}

TEST_F(DispatchConformance, TimersFireOnceInTheOrderOfTheirDeadlines) {
  // Only timers that are armed before the first is due have an order to keep; where the machine was
  // too slow for that, the spans are doubled.
  for (std::chrono::milliseconds unit = 4ms;; unit *= 2) {
    Log fired;
    const Queue queue("timers");
    const auto latest = dispatch_time(DISPATCH_TIME_NOW, std::chrono::nanoseconds(unit).count());
    const auto timer = [&](std::chrono::nanoseconds delay, const char* word) {
      return std::make_unique<OneShotTimer>(queue, delay, [&fired, word] { fired.add(word); });
    };
    const auto third = timer(3 * unit, "third");
    const auto first = timer(unit, "first");
    const auto again = timer(unit, "again");  // on the virtual clock at the very same time
    const auto never = timer(std::chrono::nanoseconds::max(), "never");
    const auto past = timer(-1s, "past");
    const auto second = timer(2 * unit, "second");
    const bool inTime = dispatch_time(DISPATCH_TIME_NOW, 0) < latest;
    fired.waitFor("third");
    letPass(3 * unit);
    queue.sync([&] { fired.add("end"); });
    if (!inTime) continue;
    EXPECT_EQ(fired.waitFor("end"), "past first again second third end");
    break;
  }
}

TEST_F(DispatchConformance, CancelledOnItsQueueADueTimerNeverFires) {
  const Queue queue("lease");
  std::optional<OneShotTimer> lease;
  std::optional<OneShotTimer> cap;
  queue.sync([&] {
    lease.emplace(queue, 2ms, [this] { log.add("expired"); });
    cap.emplace(queue, 2ms, [this] { log.add("capped"); });
    letPass(3ms);  // both handlers wait behind this block now
    cap->cancel();
    lease.emplace(queue, 2ms, [this] { log.add("renewed"); });
  });
  EXPECT_EQ(log.waitFor("renewed"), "renewed");
}

/// A timer made by hand, whose handler and finalizer log and notice a wrong queue.
struct Probe {
  Probe(Log& words, const Queue& queue, std::chrono::nanoseconds delay)
      : log(words),
        timer(dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, queue.handle())) {
    queue.sync([this] { queueThread = std::this_thread::get_id(); });
    dispatch_set_context(timer, this);
    dispatch_set_finalizer_f(timer, [](void* self) { static_cast<Probe*>(self)->add("freed"); });
    dispatch_source_set_event_handler_f(timer, [](void* self) {
      auto* probe = static_cast<Probe*>(self);
      if (probe->releasedByHandler) dispatch_release(probe->timer);
      probe->add("fired");
    });
    dispatch_source_set_timer(timer, dispatch_time(DISPATCH_TIME_NOW, delay.count()),
                              DISPATCH_TIME_FOREVER, 0);
  }
  void add(const std::string& word) const {
    log.add(std::this_thread::get_id() == queueThread ? word : word + " elsewhere");
  }

  Log& log;
  const dispatch_source_t timer;
  std::thread::id queueThread;
  bool releasedByHandler = false;
};

TEST_F(DispatchConformance, AFinalizerRunsOnceOnTheQueueAfterTheHandler) {
  const Queue queue("finalizers");
  Probe own(log, queue, 1ms);
  own.releasedByHandler = true;
  dispatch_resume(own.timer);
  EXPECT_EQ(log.waitFor("freed"), "fired freed");

  Log others;
  Probe fired(others, queue, 1ms);
  dispatch_resume(fired.timer);
  others.waitFor("fired");
  Probe neverFired(others, queue, 1h);
  dispatch_resume(neverFired.timer);
  Probe cancelled(others, queue, 1h);
  dispatch_resume(cancelled.timer);
  dispatch_source_cancel(cancelled.timer);
  Probe neverResumed(others, queue, -1s);
  for (const Probe* probe : {&fired, &neverFired, &cancelled, &neverResumed}) {
    queue.sync([&] {
      dispatch_release(probe->timer);
      others.add("released");
    });
  }
  queue.sync([&] { others.add("end"); });
  EXPECT_EQ(others.waitFor("end"),
            "fired released freed released freed released freed released freed end");
  EXPECT_EQ(log.waitFor("freed"), "fired freed");
}

TEST_F(DispatchConformance, ASuspendedQueueBeginsNothing) {
  const Queue queue("suspended");
  const OneShotTimer due(queue, 2ms, [this] { log.add("due"); });
  queue.sync([&] {
    letPass(3ms);
    queue.async([this] { log.add("behind"); });
    log.add("last");
    queue.suspend();
    queue.suspend();
  });
  letPass(2ms);
  dispatch_resume(queue.handle());
  letPass(2ms);
  EXPECT_EQ(log.waitFor("last"), "last");
  dispatch_resume(queue.handle());
  EXPECT_EQ(log.waitFor("behind"), "last due behind");
}

TEST_F(DispatchConformance, AQueueReleasedByItsOwnBlockRunsWhatWasSubmitted) {
  auto queue = std::make_unique<Queue>("own");
  queue->sync([&] {
    queue->async([&] {
      queue.reset();
      log.add("released");
    });
    queue->async([this] { log.add("behind"); });
  });
  EXPECT_EQ(log.waitFor("behind"), "released behind");
}

/// On a queue of the test's, which can be waited for as the main queue cannot.
class SignalOnQueue : public dispatch::Source {
 public:
  SignalOnQueue(int signal, const Queue& queue, Handler handler)
      : Source(DISPATCH_SOURCE_TYPE_SIGNAL, static_cast<std::uintptr_t>(signal), queue.handle(),
               std::move(handler)) {
    dispatch_resume(native);
  }
};

TEST_F(DispatchConformance, IgnoredSignalsReachTheirSourcesOneHandlerAtATime) {
  std::signal(SIGUSR1, SIG_IGN);
  const Queue queue("signals");
  const auto handler = [this](const char* begin, const char* end) {
    return [this, begin, end] {
      log.add(begin);
      letPass(1ms);
      log.add(end);
    };
  };
  const SignalOnQueue first(SIGUSR1, queue, handler("first", "(end)"));
  SignalOnQueue cancelled(SIGUSR1, queue, [this] { log.add("cancelled"); });
  const SignalOnQueue second(SIGUSR2, queue, handler("second", "[end]"));
  queue.sync([&] {
    sendSignal(SIGUSR1);
    sendSignal(SIGUSR2);
    cancelled.cancel();
    log.add("busy");
  });
  log.waitFor("(end)");
  const std::string text = log.waitFor("[end]");
  // Which of two signals comes first is nobody's promise.
  if (text != "busy second [end] first (end)") {
    EXPECT_EQ(text, "busy first (end) second [end]");
  }
  sendSignal(SIGUSR2);
  EXPECT_EQ(log.waitFor("[end]", 2), text + " second [end]");
}

}  // namespace
}  // namespace quorvane::dispatchtest
