#include "Support/VirtualDispatch.h"

#include <dispatch/dispatch.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
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
};

struct VirtualSource final : dispatch_source_s {
  VirtualSource(VirtualQueue& target, int number) : queue(target), signal(number) {}
  void fire() {
    queue.blocks.emplace_back([this] { handler(context); });
  }

  VirtualQueue& queue;
  const int signal;  // 0 for a timer
  dispatch_function_t handler = nullptr;
  dispatch_function_t finalizer = nullptr;
  void* context = nullptr;
};

/// Everything since a reset. None of it is freed but a source that was finalized, nor is what a
/// block owns that never runs: that may be objects of the test, and they may still release theirs.
struct World {
  World* previous = nullptr;  // reachable, so that no leak is reported
  uint64_t now = 0;
  std::list<VirtualQueue> queues{1};  // the main queue first
  std::list<VirtualSource> sources{};
  std::multimap<dispatch_time_t, VirtualSource*> timers{};
};
World* world = new World;

}  // namespace

namespace quorvane::virtualdispatch {

void runUntilIdle() {
  while (std::ranges::any_of(world->queues, &VirtualQueue::runOne)) {
  }
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

std::size_t armedTimers() {
  return world->timers.size();
}

void reset() {
  world = new World{.previous = world};
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
  for (auto left = own.blocks.size(); left > 0; --left) {
    if (!own.runOne()) std::abort();
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
  auto* source = dynamic_cast<VirtualSource*>(object);
  if (source == nullptr) return;
  source->queue.blocks.emplace_back([source] {
    source->finalizer(source->context);
    world->sources.remove_if([source](const auto& each) { return &each == source; });
  });
}

dispatch_time_t dispatch_time(dispatch_time_t when, int64_t delta) {
  return quorvane::dispatch::timeAfter(when, delta, world->now);
}
