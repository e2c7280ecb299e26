// What dispatch sources wait for. One thread of the layer waits for the next deadline of all timers
// on one timerfd, and for all signals on one signalfd, and puts the handlers onto their queues; it
// runs none itself, and with no timer set and no signal it never wakes. Callable from any thread.
#pragma once

#include <dispatch/dispatch.h>
#include <signal.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

#include "Platform/Linux/Dispatch/SerialQueue.h"
#include "Platform/NoDestructor.h"

namespace quorvane::dispatch {

/// A timer or a signal source. It keeps its queue, and is freed there after its finalizer.
class EventSource final : public dispatch_source_s {
 public:
  /// A timer has the signal number 0.
  EventSource(SerialQueue& target, int signalNumber);
  EventSource(const EventSource&) = delete;
  EventSource& operator=(const EventSource&) = delete;

  /// Puts the handler onto the queue; once, however often the event comes before it has begun, so
  /// that a flood of signals takes no memory.
  void fire();
  /// Frees a cancelled source, by a block that comes behind all of its own on the queue.
  void release();

  const int signal;

  // Set before the source is resumed, constant afterwards.
  dispatch_function_t handler = nullptr;
  dispatch_function_t finalizer = nullptr;
  void* context = nullptr;
  dispatch_time_t deadline = DISPATCH_TIME_FOREVER;

  std::atomic<bool> cancelled = false;

 private:
  void runHandler();
  void finish();

  SerialQueue& queue;
  std::atomic<bool> waiting = false;
};

class EventLoop {
 public:
  /// Started by the first call for it, or the process ends.
  static EventLoop& shared();

  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  /// Fires the source from now on. The signal of a signal source must be blocked in all threads.
  void add(EventSource& source);
  /// Fires the source never again. When this is called on the source's queue, a handler that waits
  /// there will not run.
  void cancel(EventSource& source);

 private:
  friend class NoDestructor<EventLoop>;
  EventLoop();
  ~EventLoop() = delete;
  void watch(int descriptor) const;
  [[noreturn]] void run();
  void fireTimers();
  void fireSignals();
  void setTimerLocked();

  const int timer;
  const int events;
  int signals = -1;

  std::mutex mutex;  // guards what follows; taken before a queue's, never the other way round
  std::vector<EventSource*> timers;  // by deadline
  /// Never after the first deadline. It may be before it, and wake the thread for nothing once, for
  /// a timer that was cancelled while others remain: to put it off at each renewal of a lease costs
  /// more. Without timers it is off.
  dispatch_time_t timerSetTo = DISPATCH_TIME_FOREVER;
  std::vector<EventSource*> signalSources;
  sigset_t watchedSignals{};  // only grows
};

/// monotonicTime(), which counts the time in suspend: what falls due while the machine sleeps fires
/// when it wakes.
std::uint64_t nowNanoseconds();

}  // namespace quorvane::dispatch
