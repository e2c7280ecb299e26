#include "Support/VirtualDispatch.h"

#include <dispatch/dispatch.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <functional>
#include <list>
#include <map>

#include "Platform/Linux/Dispatch/DispatchTime.h"

namespace {

struct VirtualQueue final : dispatch_queue_s {
  bool runOne() {
    if (holds > 0 || blocks.empty()) return false;
    const auto block = std::move(blocks.front());
    blocks.pop_front();
    run(block);
    return true;
  }
  void run(const std::function<void()>& block) {
    ++holds;
    block();
    --holds;
  }

  std::deque<std::function<void()>> blocks;
  int holds = 0;  // its suspension, and the block that it runs
  bool isReleased = false;
};

struct VirtualTimer final : dispatch_source_s {
  explicit VirtualTimer(VirtualQueue& target) : queue(target) {}

  VirtualQueue& queue;
  dispatch_function_t handler = nullptr;
  dispatch_function_t finalizer = nullptr;
  void* context = nullptr;
};

// Never freed: objects of a test may outlive those of a program.
auto& queues = *new std::list<VirtualQueue>;
auto& timers = *new std::multimap<dispatch_time_t, VirtualTimer*>;
uint64_t clockTime = 0;

void runAll(bool (*runsOne)(VirtualQueue&)) {
  while (std::ranges::any_of(queues, runsOne)) {
  }
  queues.remove_if([](const VirtualQueue& queue) {
    return queue.isReleased && queue.holds == 0 && queue.blocks.empty();
  });
}

}  // namespace

namespace quorvane::virtualdispatch {

void runUntilIdle() {
  runAll([](VirtualQueue& queue) { return queue.runOne(); });
}

void advance(std::chrono::nanoseconds duration) {
  const uint64_t end = clockTime + static_cast<uint64_t>(duration.count());
  for (runUntilIdle(); clockTime < end; runUntilIdle()) {
    const uint64_t next = timers.empty() ? end : std::min(end, timers.begin()->first);
    elapse(std::chrono::nanoseconds(next - clockTime));
  }
}

void elapse(std::chrono::nanoseconds duration) {
  clockTime += static_cast<uint64_t>(duration.count());
  while (!timers.empty() && timers.begin()->first <= clockTime) {
    VirtualTimer* const timer = timers.extract(timers.begin()).mapped();
    timer->queue.blocks.emplace_back([timer] { timer->handler(timer->context); });
  }
}

std::chrono::nanoseconds now() {
  return std::chrono::nanoseconds(clockTime);
}

std::vector<std::chrono::nanoseconds> deadlines() {
  std::vector<std::chrono::nanoseconds> all;
  for (const auto& [due, timer] : timers) all.emplace_back(due);
  return all;
}

void drain() {
  runAll([](VirtualQueue& queue) {
    queue.holds = 0;
    try {
      return queue.runOne();
    } catch (...) {
      return true;
    }
  });
}

void reset() {
  drain();
  clockTime = 0;
}

}  // namespace quorvane::virtualdispatch

struct dispatch_source_type_s {};
const dispatch_source_type_s _dispatch_source_type_timer;

dispatch_queue_t dispatch_queue_create(const char* /*label*/, dispatch_queue_attr_t /*serial*/) {
  return &queues.emplace_back();
}

void dispatch_async_f(dispatch_queue_t queue, void* context, dispatch_function_t work) {
  static_cast<VirtualQueue*>(queue)->blocks.emplace_back([=] { work(context); });
}

void dispatch_sync_f(dispatch_queue_t queue, void* context, dispatch_function_t work) {
  auto& own = static_cast<VirtualQueue&>(*queue);
  for (auto ahead = own.blocks.size(); ahead > 0; --ahead) {
    if (!own.runOne()) std::abort();
  }
  if (own.holds > 0) std::abort();
  own.run([=] { work(context); });
}

dispatch_source_t dispatch_source_create(dispatch_source_type_t /*timer*/, uintptr_t /*handle*/,
                                         uintptr_t /*mask*/, dispatch_queue_t queue) {
  return new VirtualTimer(static_cast<VirtualQueue&>(*queue));
}

void dispatch_source_set_timer(dispatch_source_t source, dispatch_time_t start,
                               uint64_t /*interval*/, uint64_t /*leeway*/) {
  timers.emplace(start, static_cast<VirtualTimer*>(source));
  quorvane::virtualdispatch::elapse({});
}

void dispatch_source_set_event_handler_f(dispatch_source_t source, dispatch_function_t handler) {
  static_cast<VirtualTimer*>(source)->handler = handler;
}

void dispatch_set_context(dispatch_object_t object, void* context) {
  static_cast<VirtualTimer*>(object)->context = context;
}

void dispatch_set_finalizer_f(dispatch_object_t object, dispatch_function_t finalizer) {
  static_cast<VirtualTimer*>(object)->finalizer = finalizer;
}

void dispatch_suspend(dispatch_object_t object) {
  ++static_cast<VirtualQueue*>(object)->holds;
}

void dispatch_resume(dispatch_object_t /*source*/) {}

void dispatch_source_cancel(dispatch_source_t source) {
  static_cast<VirtualTimer*>(source)->handler = [](void*) {};
  std::erase_if(timers, [source](const auto& entry) { return entry.second == source; });
}

void dispatch_release(dispatch_object_t object) {
  if (auto* queue = dynamic_cast<VirtualQueue*>(object)) return void(queue->isReleased = true);
  auto* const timer = static_cast<VirtualTimer*>(object);
  timer->queue.blocks.emplace_back([timer] {  // behind its handler
    timer->finalizer(timer->context);
    delete timer;
  });
}

dispatch_time_t dispatch_time(dispatch_time_t when, int64_t delta) {
  return quorvane::dispatch::timeAfter(when, delta, clockTime);
}
