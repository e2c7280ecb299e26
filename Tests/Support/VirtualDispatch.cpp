#include "Support/VirtualDispatch.h"

#include <dispatch/dispatch.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <exception>
#include <functional>
#include <list>
#include <map>
#include <utility>

#include "Platform/Linux/Dispatch/DispatchTime.h"

namespace {

/// The native pointers are only another type of pointer to the objects here: on macOS nothing can
/// be derived from their types.
template <class Kind>
Kind& as(dispatch_object_t native) {
  return *reinterpret_cast<Kind*>(native);
}

struct VirtualQueue {
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

struct VirtualTimer {
  VirtualQueue& queue;
  dispatch_function_t handler = nullptr;
  dispatch_function_t finalizer = nullptr;
  void* context = nullptr;
};

// Never freed: objects of a test may outlive those of a program.
auto& queues = *new std::list<VirtualQueue>;
auto& timers = *new std::multimap<dispatch_time_t, VirtualTimer*>;
uint64_t clockTime = 0;
std::exception_ptr thrown;  // by a block for which somebody waited

void runAll(bool (*runsOne)(VirtualQueue&)) {
  while (std::ranges::any_of(queues, runsOne)) continue;
  queues.remove_if([](const VirtualQueue& queue) {
    return queue.isReleased && queue.holds == 0 && queue.blocks.empty();
  });
}

}  // namespace

namespace quorvane::virtualdispatch {

void runUntilIdle() {
  if (thrown) std::rethrow_exception(std::exchange(thrown, nullptr));
  runAll([](VirtualQueue& queue) { return queue.runOne(); });
}

void advance(std::chrono::nanoseconds duration) {
  const uint64_t end = clockTime + static_cast<uint64_t>(duration.count());
  runUntilIdle();
  while (clockTime < end) {
    const uint64_t next = timers.empty() ? end : std::min(end, timers.begin()->first);
    elapse(std::chrono::nanoseconds(next - clockTime));
    runUntilIdle();
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
  thrown = nullptr;
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
  return reinterpret_cast<dispatch_queue_t>(&queues.emplace_back());
}

void dispatch_async_f(dispatch_queue_t queue, void* context, dispatch_function_t work) {
  as<VirtualQueue>(queue).blocks.emplace_back([=] { work(context); });
}

void dispatch_sync_f(dispatch_queue_t queue, void* context, dispatch_function_t work) {
  auto& own = as<VirtualQueue>(queue);
  try {
    for (auto ahead = own.blocks.size(); ahead > 0; --ahead) {
      if (!own.runOne()) std::abort();
    }
    if (own.holds > 0) std::abort();
    own.run([=] { work(context); });
  } catch (...) {
    thrown = std::current_exception();
  }
}

dispatch_source_t dispatch_source_create(dispatch_source_type_t /*timer*/, uintptr_t /*handle*/,
                                         uintptr_t /*mask*/, dispatch_queue_t queue) {
  return reinterpret_cast<dispatch_source_t>(new VirtualTimer{as<VirtualQueue>(queue)});
}

void dispatch_source_set_timer(dispatch_source_t source, dispatch_time_t start,
                               uint64_t /*interval*/, uint64_t /*leeway*/) {
  timers.emplace(start, &as<VirtualTimer>(source));
  quorvane::virtualdispatch::elapse({});
}

void dispatch_source_set_event_handler_f(dispatch_source_t source, dispatch_function_t handler) {
  as<VirtualTimer>(source).handler = handler;
}

void dispatch_set_context(dispatch_object_t object, void* context) {
  as<VirtualTimer>(object).context = context;
}

void dispatch_set_finalizer_f(dispatch_object_t object, dispatch_function_t finalizer) {
  as<VirtualTimer>(object).finalizer = finalizer;
}

void dispatch_suspend(dispatch_object_t object) {
  ++as<VirtualQueue>(object).holds;
}

void dispatch_resume(dispatch_object_t /*source*/) {}

void dispatch_source_cancel(dispatch_source_t source) {
  VirtualTimer& timer = as<VirtualTimer>(source);
  timer.handler = [](void*) {};
  std::erase_if(timers, [&timer](const auto& entry) { return entry.second == &timer; });
}

void dispatch_release(dispatch_object_t object) {
  for (VirtualQueue& queue : queues) {
    if (&queue != &as<VirtualQueue>(object)) continue;
    queue.isReleased = true;
    return;
  }
  auto* const timer = &as<VirtualTimer>(object);
  timer->queue.blocks.emplace_back([timer] {  // behind its handler
    timer->finalizer(timer->context);
    delete timer;
  });
}

dispatch_time_t dispatch_time(dispatch_time_t when, int64_t delta) {
  return quorvane::dispatch::timeAfter(when, delta, clockTime);
}
