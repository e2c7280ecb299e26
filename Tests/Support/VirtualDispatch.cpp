#include "Support/VirtualDispatch.h"

#include <dispatch/dispatch.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <list>
#include <memory>
#include <set>
#include <tuple>
#include <utility>
#include <vector>

#include "Platform/Linux/DispatchTime.h"

namespace {

// Not zero, which DISPATCH_TIME_NOW stands for.
constexpr std::uint64_t startOfTime = NSEC_PER_SEC;

struct VirtualQueue final : dispatch_queue_main_s {
  int references = 1;  // the creator's, and one for each source and each block in the FIFO
  int suspensions = 0;
  bool busy = false;
};

struct VirtualSource final : dispatch_source_s {
  VirtualSource(VirtualQueue& target, int signalNumber) : queue(target), signal(signalNumber) {}

  VirtualQueue& queue;
  const int signal;  // 0 for a timer
  int references = 1;
  dispatch_function_t handler = nullptr;
  dispatch_function_t finalizer = nullptr;
  void* context = nullptr;
  dispatch_time_t deadline = DISPATCH_TIME_FOREVER;
  std::uint64_t turn = 0;  // among timers of one deadline
  bool resumed = false;
  bool cancelled = false;
  bool waiting = false;
};

struct Earlier {
  bool operator()(const VirtualSource* a, const VirtualSource* b) const {
    return std::tie(a->deadline, a->turn) < std::tie(b->deadline, b->turn);
  }
};

struct Block {
  VirtualQueue* queue;
  dispatch_function_t work;
  void* context;
};
using Blocks = std::list<Block>;

struct World {
  std::uint64_t now = startOfTime;
  std::uint64_t lastTurn = 0;
  Blocks blocks;
  Blocks abandoned;  // by reset(): reachable, so that no leak is reported
  std::set<VirtualSource*, Earlier> timers;
  std::vector<VirtualSource*> signalSources;
  VirtualQueue& mainQueue = *new VirtualQueue;
};

/// Never freed: objects of a test may be static.
World& world() {
  static World& instance = *new World;
  return instance;
}

void require(bool holds, const char* otherwise) {
  if (holds) return;
  std::fprintf(stderr, "virtual dispatch: %s\n", otherwise);
  std::abort();
}

VirtualQueue& queueOf(dispatch_object_t object) {
  return dynamic_cast<VirtualQueue&>(*object);
}
VirtualSource& sourceOf(dispatch_object_t object) {
  return dynamic_cast<VirtualSource&>(*object);
}

bool isQueue(dispatch_object_t object) {
  return dynamic_cast<VirtualQueue*>(object) != nullptr;
}

void release(VirtualQueue& queue) {
  if (--queue.references == 0) delete &queue;
}

void submit(VirtualQueue& queue, dispatch_function_t work, void* context) {
  ++queue.references;
  world().blocks.push_back({&queue, work, context});
}

void runBlock(Blocks::iterator position) noexcept {
  const Block block = *position;
  world().blocks.erase(position);
  block.queue->busy = true;
  block.work(block.context);
  block.queue->busy = false;
  release(*block.queue);
}

void release(VirtualSource& source) {
  if (--source.references > 0) return;
  submit(
      source.queue,
      [](void* context) {
        const std::unique_ptr<VirtualSource> own(static_cast<VirtualSource*>(context));
        if (own->finalizer != nullptr) own->finalizer(own->context);
        release(own->queue);
      },
      &source);
}

/// Once, however often the event comes before the handler has begun.
void fire(VirtualSource& source) {
  if (std::exchange(source.waiting, true)) return;
  ++source.references;
  submit(
      source.queue,
      [](void* context) {
        auto& own = *static_cast<VirtualSource*>(context);
        own.waiting = false;
        if (!own.cancelled && own.handler != nullptr) own.handler(own.context);
        release(own);
      },
      &source);
}

void fireDueTimers() {
  auto& timers = world().timers;
  while (!timers.empty() && (*timers.begin())->deadline <= world().now) {
    fire(**timers.begin());
    timers.erase(timers.begin());
  }
}

}  // namespace

namespace quorvane::virtualdispatch {

bool runOne() {
  Blocks& blocks = world().blocks;
  const auto next = std::ranges::find_if(blocks, [](const Block& block) {
    return block.queue->suspensions == 0 && !block.queue->busy;
  });
  if (next == blocks.end()) return false;
  runBlock(next);
  return true;
}

void runUntilIdle() {
  while (runOne()) {
  }
}

void advance(std::chrono::nanoseconds duration) {
  const auto end = now() + duration;
  const auto& timers = world().timers;
  for (runUntilIdle(); !timers.empty(); runUntilIdle()) {
    const std::chrono::nanoseconds next((*timers.begin())->deadline - startOfTime);
    if (next > end) break;
    elapse(next - now());
  }
  if (now() < end) elapse(end - now());
}

void elapse(std::chrono::nanoseconds duration) {
  require(duration.count() >= 0, "time does not go back");
  world().now += static_cast<std::uint64_t>(duration.count());
  fireDueTimers();
}

std::chrono::nanoseconds now() {
  return std::chrono::nanoseconds(world().now - startOfTime);
}

bool deliverSignal(int signal) {
  bool taken = false;
  for (VirtualSource* source : world().signalSources) {
    if (source->signal != signal) continue;
    fire(*source);
    taken = true;
  }
  return taken;
}

std::size_t armedTimers() {
  return world().timers.size();
}
std::size_t queuedBlocks() {
  return world().blocks.size();
}

void reset() {
  World& old = world();
  old.abandoned.splice(old.abandoned.end(), old.blocks);
  old.timers.clear();
  old.signalSources.clear();
  old.now = startOfTime;
  old.mainQueue.suspensions = 0;
}

}  // namespace quorvane::virtualdispatch

struct dispatch_source_type_s {};
const dispatch_source_type_s _dispatch_source_type_timer;
const dispatch_source_type_s _dispatch_source_type_signal;

dispatch_queue_t dispatch_queue_create(const char* /*label*/, dispatch_queue_attr_t /*serial*/) {
  return new VirtualQueue;
}

dispatch_queue_main_t dispatch_get_main_queue() {
  return &world().mainQueue;
}

void dispatch_main() {
  require(false, "nobody drains the main queue but the test");
  std::abort();
}

void dispatch_async_f(dispatch_queue_t queue, void* context, dispatch_function_t work) {
  submit(queueOf(queue), work, context);
}

void dispatch_sync_f(dispatch_queue_t queue, void* context, dispatch_function_t work) {
  VirtualQueue& target = queueOf(queue);
  require(!target.busy, "dispatch_sync onto a queue that waits for its caller");
  submit(target, work, context);
  Blocks& blocks = world().blocks;
  const auto own = std::prev(blocks.end());
  for (bool ran = false; !ran;) {
    require(target.suspensions == 0, "dispatch_sync waits for a suspended queue");
    const auto next = std::ranges::find(blocks, &target, &Block::queue);
    ran = next == own;
    runBlock(next);
  }
}

dispatch_source_t dispatch_source_create(dispatch_source_type_t type, uintptr_t handle,
                                         uintptr_t /*mask*/, dispatch_queue_t queue) {
  VirtualQueue& target = queueOf(queue);
  ++target.references;
  const bool isTimer = type == DISPATCH_SOURCE_TYPE_TIMER;
  return new VirtualSource(target, isTimer ? 0 : static_cast<int>(handle));
}

void dispatch_source_set_timer(dispatch_source_t source, dispatch_time_t start, uint64_t interval,
                               uint64_t /*leeway*/) {
  VirtualSource& timer = sourceOf(source);
  require(!timer.resumed && interval == DISPATCH_TIME_FOREVER, "a timer is set once, fires once");
  timer.deadline = start;
}

void dispatch_source_set_event_handler_f(dispatch_source_t source, dispatch_function_t handler) {
  sourceOf(source).handler = handler;
}

void dispatch_source_cancel(dispatch_source_t source) {
  VirtualSource& own = sourceOf(source);
  own.cancelled = true;
  world().timers.erase(&own);
  std::erase(world().signalSources, &own);
}

void dispatch_set_context(dispatch_object_t object, void* context) {
  sourceOf(object).context = context;
}

void dispatch_set_finalizer_f(dispatch_object_t object, dispatch_function_t finalizer) {
  sourceOf(object).finalizer = finalizer;
}

void dispatch_suspend(dispatch_object_t object) {
  ++queueOf(object).suspensions;
}

void dispatch_resume(dispatch_object_t object) {
  if (isQueue(object)) {
    require(queueOf(object).suspensions-- > 0, "dispatch_resume of what is not suspended");
    return;
  }
  VirtualSource& source = sourceOf(object);
  require(!std::exchange(source.resumed, true), "a source is resumed once");
  if (source.cancelled) return;
  if (source.signal != 0) {
    world().signalSources.push_back(&source);
  } else if (source.deadline != DISPATCH_TIME_FOREVER) {
    source.turn = ++world().lastTurn;
    world().timers.insert(&source);
    fireDueTimers();
  }
}

void dispatch_release(dispatch_object_t object) {
  if (isQueue(object)) {
    release(queueOf(object));
    return;
  }
  dispatch_source_cancel(&sourceOf(object));
  release(sourceOf(object));
}

dispatch_time_t dispatch_time(dispatch_time_t when, int64_t delta) {
  return quorvane::dispatch::timeAfter(when, delta, world().now);
}
