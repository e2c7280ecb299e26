#include "Support/VirtualDispatch.h"

#include <dispatch/dispatch.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <exception>
#include <functional>
#include <map>
#include <utility>

#include "Platform/Linux/Dispatch/DispatchTime.h"

namespace {

struct VirtualTimer {
  dispatch_function_t handler = nullptr;
  dispatch_function_t finalizer = nullptr;
  void* context = nullptr;
};

/// The native pointers are cast pointers to timers, because on macOS no type can derive from the
/// native types.
VirtualTimer& timerOf(dispatch_object_t native) {
  return *reinterpret_cast<VirtualTimer*>(native);
}

// Never freed: a test's static objects may outlive this file's.
auto& blocks = *new std::deque<std::function<void()>>;
auto& timers = *new std::multimap<dispatch_time_t, VirtualTimer*>;
const auto theQueue = reinterpret_cast<dispatch_queue_t>(&blocks);
int holds = 0;  // on the queue: by its suspension and by the running block
uint64_t clockTime = 0;
std::exception_ptr thrown;  // by a block that a sync ran

bool runOne() {
  if (holds > 0 || blocks.empty()) return false;
  const auto block = std::move(blocks.front());
  blocks.pop_front();
  ++holds;
  block();
  --holds;
  return true;
}

}  // namespace

namespace quorvane::virtualdispatch {

void runUntilIdle() {
  if (thrown) std::rethrow_exception(std::exchange(thrown, nullptr));
  while (runOne()) continue;
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
    blocks.emplace_back([timer] { timer->handler(timer->context); });
  }
}

std::vector<std::chrono::nanoseconds> deadlines() {
  std::vector<std::chrono::nanoseconds> all;
  for (const auto& [due, timer] : timers) all.emplace_back(due - clockTime);
  return all;
}

void reset() {
  thrown = nullptr;
  for (holds = 0; !blocks.empty(); holds = 0) {
    try {
      runOne();
    } catch (...) {
      continue;
    }
  }
  clockTime = 0;
}

}  // namespace quorvane::virtualdispatch

struct dispatch_source_type_s {};
const dispatch_source_type_s _dispatch_source_type_timer;

dispatch_queue_t dispatch_queue_create(const char* /*label*/, dispatch_queue_attr_t /*serial*/) {
  return theQueue;
}

void dispatch_async_f(dispatch_queue_t /*queue*/, void* context, dispatch_function_t work) {
  blocks.emplace_back([=] { work(context); });
}

void dispatch_sync_f(dispatch_queue_t /*queue*/, void* context, dispatch_function_t work) {
  try {
    for (auto ahead = blocks.size(); ahead > 0; --ahead) runOne();
    blocks.emplace_front([=] { work(context); });
    if (!runOne()) std::abort();
  } catch (...) {
    thrown = std::current_exception();
  }
}

dispatch_source_t dispatch_source_create(dispatch_source_type_t /*timer*/, uintptr_t /*handle*/,
                                         uintptr_t /*mask*/, dispatch_queue_t /*queue*/) {
  return reinterpret_cast<dispatch_source_t>(new VirtualTimer);
}

void dispatch_source_set_timer(dispatch_source_t source, dispatch_time_t start,
                               uint64_t /*interval*/, uint64_t /*leeway*/) {
  timers.emplace(start, &timerOf(source));
  quorvane::virtualdispatch::elapse({});
}

void dispatch_source_set_event_handler_f(dispatch_source_t source, dispatch_function_t handler) {
  timerOf(source).handler = handler;
}

void dispatch_set_context(dispatch_object_t object, void* context) {
  timerOf(object).context = context;
}

void dispatch_set_finalizer_f(dispatch_object_t object, dispatch_function_t finalizer) {
  timerOf(object).finalizer = finalizer;
}

void dispatch_suspend(dispatch_object_t /*queue*/) {
  ++holds;
}

void dispatch_resume(dispatch_object_t /*source*/) {}

void dispatch_source_cancel(dispatch_source_t source) {
  VirtualTimer& timer = timerOf(source);
  timer.handler = [](void*) {};
  std::erase_if(timers, [&timer](const auto& entry) { return entry.second == &timer; });
}

void dispatch_release(dispatch_object_t object) {
  if (object == theQueue) return;
  VirtualTimer* const timer = &timerOf(object);
  blocks.emplace_back([timer] {  // after its handler
    timer->finalizer(timer->context);
    delete timer;
  });
}

dispatch_time_t dispatch_time(dispatch_time_t when, int64_t delta) {
  return quorvane::dispatch::timeAfter(when, delta, clockTime);
}
