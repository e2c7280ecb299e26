// Waits for the events of dispatch sources. One thread of the layer waits for the next deadline of
// all timers on one timerfd, and for all signals on one signalfd. It submits the handlers to their
// queues, runs none itself, and never wakes without a timer or a signal. Callable from any thread.
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

/// A timer or a signal source. It retains its queue, and is freed there after its finalizer.
class EventSource final : public dispatch_source_s {
 public:
  /// A timer has the signal number 0.
  EventSource(SerialQueue& target, int signalNumber);
  EventSource(const EventSource&) = delete;
  EventSource& operator=(const EventSource&) = delete;

  /// Submits the handler to the queue. Events before the handler starts count as one, so a flood of
  /// signals takes no memory.
  void fire();
  /// Frees a cancelled source, by a block that follows all of its own on the queue.
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
  /// Returns the process's loop. The first call starts it, and ends the process on failure.
  static EventLoop& shared();

  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  /// Lets the source fire from now on. REQUIRES: all threads block the signal of a signal source.
  void add(EventSource& source);
  /// Stops the source. On its queue this is final: a handler that waits there does not run.
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

  std::mutex mutex;  // guards the members below; taken before a queue's mutex, never after it
  std::vector<EventSource*> timers;  // by deadline
  /// Never later than the first deadline. It is earlier if a timer was cancelled while others
  /// remain; the thread then wakes once without need. Moving it at each renewal of a lease would
  /// cost more. Without timers it is off.
  dispatch_time_t timerSetTo = DISPATCH_TIME_FOREVER;
  std::vector<EventSource*> signalSources;
  sigset_t watchedSignals{};  // only grows
};

/// monotonicTime(), which counts the time in suspend: a timer that falls due while the machine
/// sleeps fires when it wakes.
std::uint64_t nowNanoseconds();

}  // namespace quorvane::dispatch
