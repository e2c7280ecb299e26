// The dispatch calls over SerialQueue and EventLoop. The first queue or source starts the loop.
#include <dispatch/dispatch.h>
#include <signal.h>

#include <cerrno>
#include <typeinfo>

#include "Platform/Linux/Dispatch/DispatchTime.h"
#include "Platform/Linux/Dispatch/EventLoop.h"
#include "Platform/Linux/Dispatch/SerialQueue.h"
#include "Platform/NoDestructor.h"

using namespace quorvane::dispatch;

namespace {

/// Equivalent to a dynamic_cast to one of the two final classes, at less cost.
template <class Object>
bool is(dispatch_object_t object) {
  return typeid(*object) == typeid(Object);
}

SerialQueue& queueOf(dispatch_object_t object) {
  if (!is<SerialQueue>(object)) fatal("not a queue", EINVAL);
  return static_cast<SerialQueue&>(*object);
}
EventSource& sourceOf(dispatch_object_t object) {
  if (!is<EventSource>(object)) fatal("not a source", EINVAL);
  return static_cast<EventSource&>(*object);
}

/// A blocked signal waits for the event loop even if its disposition is SIG_IGN; an unblocked one
/// would be discarded. The layer's own threads block all signals except faults.
void blockInCaller(int signal) {
  sigset_t own;
  sigemptyset(&own);
  if (sigaddset(&own, signal) != 0) fatal("no such signal", errno);
  pthread_sigmask(SIG_BLOCK, &own, nullptr);
}

}  // namespace

struct dispatch_source_type_s {};
const dispatch_source_type_s _dispatch_source_type_timer;
const dispatch_source_type_s _dispatch_source_type_signal;

dispatch_queue_t dispatch_queue_create(const char* label, dispatch_queue_attr_t /*serial*/) {
  EventLoop::shared();
  return SerialQueue::createWithThread(label);
}

dispatch_queue_main_t dispatch_get_main_queue() {
  static const quorvane::NoDestructor<SerialQueue> queue("main");
  return &*queue;
}

void dispatch_main() {
  queueOf(dispatch_get_main_queue()).drain();
  fatal("the main queue was released", EINVAL);
}

void dispatch_async_f(dispatch_queue_t queue, void* context, dispatch_function_t work) {
  queueOf(queue).async({work, context});
}

void dispatch_sync_f(dispatch_queue_t queue, void* context, dispatch_function_t work) {
  queueOf(queue).sync({work, context});
}

dispatch_source_t dispatch_source_create(dispatch_source_type_t type, uintptr_t handle,
                                         uintptr_t /*mask*/, dispatch_queue_t queue) {
  EventLoop::shared();
  if (type == DISPATCH_SOURCE_TYPE_TIMER) return new EventSource(queueOf(queue), 0);
  const int signal = static_cast<int>(handle);
  blockInCaller(signal);
  return new EventSource(queueOf(queue), signal);
}

void dispatch_source_set_timer(dispatch_source_t source, dispatch_time_t start, uint64_t interval,
                               uint64_t /*leeway: none is taken*/) {
  if (interval != DISPATCH_TIME_FOREVER) fatal("a timer fires once", EINVAL);
  sourceOf(source).deadline = start;
}

void dispatch_source_set_event_handler_f(dispatch_source_t source, dispatch_function_t handler) {
  sourceOf(source).handler = handler;
}

void dispatch_source_cancel(dispatch_source_t source) {
  EventLoop::shared().cancel(sourceOf(source));
}

void dispatch_set_context(dispatch_object_t object, void* context) {
  sourceOf(object).context = context;
}

void dispatch_set_finalizer_f(dispatch_object_t object, dispatch_function_t finalizer) {
  sourceOf(object).finalizer = finalizer;
}

void dispatch_suspend(dispatch_object_t object) {
  queueOf(object).suspend();
}

void dispatch_resume(dispatch_object_t object) {
  EventLoop::shared().add(sourceOf(object));
}

void dispatch_release(dispatch_object_t object) {
  if (is<SerialQueue>(object)) return queueOf(object).release();
  // No call retains a source: this was its creator's reference, so it must not fire any more.
  EventLoop::shared().cancel(sourceOf(object));
  sourceOf(object).release();
}

dispatch_time_t dispatch_time(dispatch_time_t when, int64_t delta) {
  return timeAfter(when, delta, nowNanoseconds());
}
