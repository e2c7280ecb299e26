// The real dispatch layer under the conformance suite, and what is true of it alone: signals to the
// process, its way out, and what it takes of the system.
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Dispatch.h"
#include "Support/DispatchUnderTest.h"

namespace quorvane::dispatchtest {

using namespace std::chrono_literals;

bool waitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& changed,
               const std::function<bool()>& predicate) {
  return changed.wait_for(lock, 20s, predicate);
}

void sendSignal(int signal) {
  kill(getpid(), signal);
}

namespace {

using dispatch::OneShotTimer;
using dispatch::Queue;
using dispatch::SignalSource;
namespace fs = std::filesystem;

/// A daemon that ends itself by these signals, with one queue behind it flooded and another
/// running.
[[noreturn]] void serve(std::initializer_list<int> signals) {
  const Queue queue("service");
  const Queue other("runs while the process exits");
  bool released = false;
  const std::function<void()> shutDown = [&] {
    queue.sync([&] {
      released = true;
      std::fputs("released\n", stderr);
      queue.suspend();
    });
    std::exit(0);
  };
  std::signal(SIGTERM, SIG_IGN);
  std::signal(SIGINT, SIG_IGN);
  const SignalSource terminate(SIGTERM, shutDown);
  const SignalSource interrupt(SIGINT, shutDown);
  const std::function<void()> flood = [&] {
    if (released) std::fputs("ran after the release\n", stderr);
    queue.async(flood);
  };
  const std::function<void()> otherFlood = [&] { other.async(otherFlood); };
  queue.async(flood);
  other.async(otherFlood);
  queue.async([&] {
    for (const int signal : signals) sendSignal(signal);
  });
  std::raise(SIGPIPE);  // as a write into a closed pipe does
  dispatch_main();
}

TEST(LinuxDispatch, SignalsEndTheProcessFromTheMainQueueOnce) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  const auto success = testing::ExitedWithCode(0);
  EXPECT_EXIT(serve({SIGTERM}), success, "^released\n$");
  EXPECT_EXIT(serve({SIGINT, SIGTERM, SIGINT}), success, "^released\n$");
}

std::ptrdiff_t entriesIn(const char* folder) {
  return std::distance(fs::directory_iterator(folder), fs::directory_iterator());
}

TEST(LinuxDispatch, TimersTakeNoDescriptorsAndReleasedQueuesNoThreads) {
  const Queue queue("timers");
  const auto descriptors = entriesIn("/proc/self/fd");
  std::vector<std::unique_ptr<OneShotTimer>> timers;
  for (int i = 0; i < 1000; ++i) timers.push_back(std::make_unique<OneShotTimer>(queue, 1h, [] {}));
  EXPECT_EQ(entriesIn("/proc/self/fd"), descriptors);

  const auto threads = entriesIn("/proc/self/task");
  for (int i = 0; i < 50; ++i) {
    const Queue goes("goes");
    const OneShotTimer timer(goes, 1h, [] {});
  }
  const auto deadline = std::chrono::steady_clock::now() + 20s;
  while (entriesIn("/proc/self/task") > threads) {
    ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "threads are left";
  }
}

/// How often the event loop's thread has gone to sleep; nothing while it is awake.
std::optional<long> sleepsOfEventLoop() {
  for (const auto& thread : fs::directory_iterator("/proc/self/task")) {
    std::ifstream status(thread.path() / "status");
    std::map<std::string, std::string> fields;
    for (std::string name, value; status >> name && std::getline(status >> std::ws, value);) {
      fields[name] = value;
    }
    if (fields["Name:"] != "dispatch-events" || !fields["State:"].starts_with('S')) continue;
    return std::stol(fields.at("voluntary_ctxt_switches:"));
  }
  return std::nullopt;
}

TEST(LinuxDispatch, ACancelledTimerWakesNobody) {
  const Queue queue("idle");
  std::optional<long> before;
  for (bool cancelledInTime = false; !cancelledInTime;) {
    while (!(before = sleepsOfEventLoop())) {
    }
    const auto due = std::chrono::steady_clock::now() + 50ms;
    for (int i = 0; i < 10; ++i) OneShotTimer(queue, 50ms, [] {});
    cancelledInTime = std::chrono::steady_clock::now() < due;
  }
  poll(nullptr, 0, 80);
  EXPECT_EQ(sleepsOfEventLoop(), before);
}

}  // namespace
}  // namespace quorvane::dispatchtest
