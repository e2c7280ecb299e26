// A thin RAII layer over the libdispatch calls: a serial queue, a one-shot timer, a signal source.
// Blocks are lambdas, boxed through the context pointer. The same code on macOS and Linux. An
// exception that leaves a block unwinds its frames, then ends the process by std::terminate().
#pragma once

#include <dispatch/dispatch.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <type_traits>
#include <utility>

namespace quorvane::dispatch {

/// Owns a serial queue. Callable from any thread.
class Queue {
 public:
  explicit Queue(const char* label) : native(dispatch_queue_create(label, DISPATCH_QUEUE_SERIAL)) {}
  ~Queue() { dispatch_release(native); }
  Queue(const Queue&) = delete;
  Queue& operator=(const Queue&) = delete;

  /// Runs the block later, after all blocks submitted before it.
  template <class Block>
  void async(Block&& block) const {
    using Box = std::decay_t<Block>;
    auto submitted = std::make_unique<Box>(std::forward<Block>(block));
    dispatch_async_f(native, submitted.get(), [](void* context) {
      const std::unique_ptr<Box> box(static_cast<Box*>(context));
      (*box)();
    });
    static_cast<void>(submitted.release());  // now owned by the queue; on bad_alloc it stays ours
  }

  /// Runs the block after all blocks submitted before it, and returns when it has run. REQUIRES:
  /// the caller is not a block on this queue, which would wait for itself.
  template <class Block>
  void sync(const Block& block) const {
    dispatch_sync_f(native, const_cast<Block*>(&block),
                    [](void* context) { (*static_cast<const Block*>(context))(); });
  }

  /// Starts no further block. A running block completes.
  void suspend() const { dispatch_suspend(native); }

  [[nodiscard]] dispatch_queue_t handle() const { return native; }

 private:
  dispatch_queue_t native;
};

/// The common part of a timer and a signal source. It owns an event handler, which is freed on the
/// source's queue after the source is destroyed and the handler has returned. Destruction cancels
/// the source. On its queue this is final: a handler that was already due does not run.
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

/// Fires once, `delay` after its construction on the default clock, without leeway.
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

/// Calls its handler on the main queue when the signal is delivered. Deliveries before the handler
/// starts count as one. REQUIRES: the caller has set the signal's disposition to SIG_IGN.
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
