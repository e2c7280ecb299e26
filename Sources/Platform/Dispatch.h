// A thin RAII layer over the libdispatch calls: a serial queue, a one-shot timer, a signal source.
// Blocks are lambdas, boxed through the context pointer. The same code on macOS and on Linux. An
// exception that leaves a block ends the process, by std::terminate(), once it has passed all of
// the block's frames.
#pragma once

#include <dispatch/dispatch.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <type_traits>
#include <utility>

namespace quorvane::dispatch {

/// A serial queue of its own. Callable from any thread.
class Queue {
 public:
  explicit Queue(const char* label) : native(dispatch_queue_create(label, DISPATCH_QUEUE_SERIAL)) {}
  ~Queue() { dispatch_release(native); }
  Queue(const Queue&) = delete;
  Queue& operator=(const Queue&) = delete;

  /// Runs the block later, after all that was submitted before it.
  template <class Block>
  void async(Block&& block) const {
    using Box = std::decay_t<Block>;
    auto submitted = std::make_unique<Box>(std::forward<Block>(block));
    dispatch_async_f(native, submitted.get(), [](void* context) {
      const std::unique_ptr<Box> box(static_cast<Box*>(context));
      (*box)();
    });
    static_cast<void>(submitted.release());  // the queue's, unless it had no memory for it
  }

  /// Runs the block after all that was submitted before it and returns when it has run. Never from
  /// a block on this queue, which would wait for itself.
  template <class Block>
  void sync(const Block& block) const {
    dispatch_sync_f(native, const_cast<Block*>(&block),
                    [](void* context) { (*static_cast<const Block*>(context))(); });
  }

  /// Lets no further block begin; one that is running ends as usual.
  void suspend() const { dispatch_suspend(native); }

  [[nodiscard]] dispatch_queue_t handle() const { return native; }

 private:
  dispatch_queue_t native;
};

/// What a timer and a signal source share: an event handler that is freed, on the source's queue,
/// once the source is gone and the handler no longer runs. Destroying a source cancels it. On its
/// queue that is final: the handler does not run afterwards, even when it was already due.
class Source {
 public:
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;

 protected:
  template <class Handler>
  Source(dispatch_source_type_t type, std::uintptr_t handle, dispatch_queue_t queue,
         Handler&& handler)
      : native(dispatch_source_create(type, handle, 0, queue)) {
    using Box = std::decay_t<Handler>;
    dispatch_set_context(native, new Box(std::forward<Handler>(handler)));
    dispatch_set_finalizer_f(native, [](void* context) { delete static_cast<Box*>(context); });
    dispatch_source_set_event_handler_f(native,
                                        [](void* context) { (*static_cast<Box*>(context))(); });
  }
  ~Source() {
    dispatch_source_cancel(native);
    dispatch_release(native);
  }

  dispatch_source_t native;
};

/// Fires once, `delay` after its making on the default clock, without leeway.
class OneShotTimer : public Source {
 public:
  template <class Handler>
  OneShotTimer(const Queue& queue, std::chrono::nanoseconds delay, Handler&& handler)
      : Source(DISPATCH_SOURCE_TYPE_TIMER, 0, queue.handle(), std::forward<Handler>(handler)) {
    dispatch_source_set_timer(native, dispatch_time(DISPATCH_TIME_NOW, delay.count()),
                              DISPATCH_TIME_FOREVER, /*leeway=*/0);
    dispatch_resume(native);
  }
};

/// Calls its handler on the main queue for each delivery of the signal, whose disposition the
/// caller has set to be ignored.
class SignalSource : public Source {
 public:
  template <class Handler>
  SignalSource(int signal, Handler&& handler)
      : Source(DISPATCH_SOURCE_TYPE_SIGNAL, static_cast<std::uintptr_t>(signal),
               dispatch_get_main_queue(), std::forward<Handler>(handler)) {
    dispatch_resume(native);
  }
};

}  // namespace quorvane::dispatch
