#include "Support/VirtualDispatch.h"

#include <dispatch/dispatch.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <iterator>
#include <list>
#include <map>

#include "Platform/Linux/DispatchTime.h"

namespace {

struct VirtualQueue final : dispatch_queue_main_s {
  bool runOne() {
    if (holds > 0 || blocks.empty()) return false;
    const auto block = blocks.front();
    blocks.pop_front();
    ++holds;
    block();
    --holds;
    return true;
  }

  std::list<std::function<void()>> blocks;
  int holds = 0;  // its suspension, and the block that it runs
  bool released = false;
};

struct VirtualSource final : dispatch_source_s {
  VirtualSource(VirtualQueue& target, int number) : queue(target), signal(number) {}
  void fire() {
    queue.blocks.emplace_back([this] { handler(context); });
  }
  void finalize() {
    finalizer(context);
    finalized = true;
  }

  VirtualQueue& queue;
  const int signal;  // 0 for a timer
  dispatch_function_t handler = nullptr;
  dispatch_function_t finalizer = nullptr;
  void* context = nullptr;
  bool finalized = false;
};

/// Everything since a reset that is not released. What a block owns that never runs is not freed:
/// that may be objects of the test, and they may still release theirs.
struct World {
  World* previous = nullptr;  // reachable, so that no leak is reported
  uint64_t now = 0;
  std::list<VirtualQueue> queues{1};  // the main queue first
  std::list<VirtualSource> sources{};
  std::multimap<dispatch_time_t, VirtualSource*> timers{};
};
World* world = new World;

void freeReleased() {
  world->sources.remove_if(std::mem_fn(&VirtualSource::finalized));
  world->queues.remove_if([](const VirtualQueue& queue) {
    const auto targets = [&queue](const VirtualSource& source) { return &source.queue == &queue; };
    return queue.released && queue.holds == 0 && queue.blocks.empty() &&
           std::ranges::none_of(world->sources, targets);
  });
}

}  // namespace

namespace quorvane::virtualdispatch {

void runUntilIdle() {
  while (std::ranges::any_of(world->queues, &VirtualQueue::runOne)) {
  }
  freeReleased();
}

void advance(std::chrono::nanoseconds duration) {
  const uint64_t end = world->now + static_cast<uint64_t>(duration.count());
  const auto& timers = world->timers;
  for (runUntilIdle(); world->now < end; runUntilIdle()) {
    const uint64_t next = timers.empty() ? end : std::min(end, timers.begin()->first);
    elapse(std::chrono::nanoseconds(next - world->now));
  }
}

void elapse(std::chrono::nanoseconds duration) {
  world->now += static_cast<uint64_t>(duration.count());
  auto& timers = world->timers;
  const auto due = timers.upper_bound(world->now);
  std::for_each(timers.begin(), due, [](const auto& entry) { entry.second->fire(); });
  timers.erase(timers.begin(), due);
}

std::chrono::nanoseconds now() {
  return std::chrono::nanoseconds(world->now);
}

void deliverSignal(int signal) {
  for (VirtualSource& source : world->sources) {
    if (source.signal == signal) source.fire();
  }
}

std::vector<std::chrono::nanoseconds> deadlines() {
  std::vector<std::chrono::nanoseconds> all;
  for (const auto& [due, source] : world->timers) all.emplace_back(due);
  return all;
}

void drain() {
  const auto runsOne = [](VirtualQueue& queue) {
    queue.holds = 0;
    try {
      return queue.runOne();
    } catch (...) {
      return true;
    }
  };
  while (std::ranges::any_of(world->queues, runsOne)) {
  }
  freeReleased();
}

void reset() {
  freeReleased();
  World* const old = world;
  const bool empty =
      old->queues.size() == 1 && old->queues.front().blocks.empty() && old->sources.empty();
  world = new World{.previous = empty ? old->previous : old};
  if (empty) delete old;
}

}  // namespace quorvane::virtualdispatch

struct dispatch_source_type_s {};
const dispatch_source_type_s _dispatch_source_type_timer;
const dispatch_source_type_s _dispatch_source_type_signal;

dispatch_queue_t dispatch_queue_create(const char* /*label*/, dispatch_queue_attr_t /*serial*/) {
  return &world->queues.emplace_back();
}

dispatch_queue_main_t dispatch_get_main_queue() {
  return &world->queues.front();
}

void dispatch_async_f(dispatch_queue_t queue, void* context, dispatch_function_t work) {
  static_cast<VirtualQueue*>(queue)->blocks.emplace_back([=] { work(context); });
}

void dispatch_sync_f(dispatch_queue_t queue, void* context, dispatch_function_t work) {
  auto& own = static_cast<VirtualQueue&>(*queue);
  dispatch_async_f(queue, context, work);
  const auto last = std::prev(own.blocks.end());
  auto left = own.blocks.size();
  try {
    for (; left > 0; --left) {
      if (!own.runOne()) std::abort();
    }
  } catch (...) {
    if (left > 1) own.blocks.erase(last);  // its context goes with the caller
    throw;
  }
}

dispatch_source_t dispatch_source_create(dispatch_source_type_t /*type*/, uintptr_t handle,
                                         uintptr_t /*mask*/, dispatch_queue_t queue) {
  return &world->sources.emplace_back(static_cast<VirtualQueue&>(*queue), static_cast<int>(handle));
}

void dispatch_source_set_timer(dispatch_source_t source, dispatch_time_t start,
                               uint64_t /*interval*/, uint64_t /*leeway*/) {
  world->timers.emplace(start, static_cast<VirtualSource*>(source));
  quorvane::virtualdispatch::elapse({});
}

void dispatch_source_set_event_handler_f(dispatch_source_t source, dispatch_function_t handler) {
  static_cast<VirtualSource*>(source)->handler = handler;
}

void dispatch_set_context(dispatch_object_t object, void* context) {
  static_cast<VirtualSource*>(object)->context = context;
}

void dispatch_set_finalizer_f(dispatch_object_t object, dispatch_function_t finalizer) {
  static_cast<VirtualSource*>(object)->finalizer = finalizer;
}

void dispatch_suspend(dispatch_object_t object) {
  ++static_cast<VirtualQueue*>(object)->holds;
}

void dispatch_resume(dispatch_object_t /*source*/) {}

void dispatch_source_cancel(dispatch_source_t source) {
  static_cast<VirtualSource*>(source)->handler = [](void*) {};
  std::erase_if(world->timers, [source](const auto& entry) { return entry.second == source; });
}

void dispatch_release(dispatch_object_t object) {
  if (auto* source = dynamic_cast<VirtualSource*>(object)) {
    return source->queue.blocks.emplace_back([source] { source->finalize(); }), void();
  }
  static_cast<VirtualQueue*>(object)->released = true;
}

dispatch_time_t dispatch_time(dispatch_time_t when, int64_t delta) {
  return quorvane::dispatch::timeAfter(when, delta, world->now);
}
