// What dispatch sources wait for. One thread of the layer waits for the next deadline of all timers
// on one timerfd, and for each signal on a signalfd, and puts the handlers onto their queues; it
// runs none itself, and with no timer due and no signal it never wakes. Callable from any thread.
#pragma once

#include <dispatch/dispatch.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <set>
#include <vector>

#include "Platform/Linux/SerialQueue.h"

namespace quorvane::dispatch {

/// A timer or a signal source. Its references are the creator's, and one for the handler while that
/// waits or runs; it keeps its queue. It is freed on the queue after its finalizer.
class EventSource final : public dispatch_source_s {
 public:
  /// A timer has the signal number 0.
  EventSource(SerialQueue& target, int signalNumber);
  EventSource(const EventSource&) = delete;
  EventSource& operator=(const EventSource&) = delete;

  /// Puts the handler onto the queue; once, however often the event comes before it has begun, so
  /// that a flood of signals takes no memory.
  void fire();
  void release();

  const int signal;

  // Set before the source is resumed, constant afterwards.
  dispatch_function_t handler = nullptr;
  dispatch_function_t finalizer = nullptr;
  void* context = nullptr;
  dispatch_time_t deadline = DISPATCH_TIME_FOREVER;
  bool resumed = false;

  // Written by the event loop, under its mutex.
  std::uint64_t turn = 0;  // among timers of one deadline
  std::atomic<bool> cancelled = false;

 private:
  void runHandler();
  void finish();

  SerialQueue& queue;
  std::atomic<int> references = 1;
  std::atomic<bool> waiting = false;
};

class EventLoop {
 public:
  /// Started by the first call for it, or the process ends. Never freed: threads use it while the
  /// process exits.
  static EventLoop& shared();

  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  /// Fires the source from now on, unless it is cancelled already. The signal of a signal source
  /// must be blocked in all threads.
  void add(EventSource& source);
  /// Fires the source never again. When this is called on the source's queue, a handler that waits
  /// there will not run.
  void cancel(EventSource& source);

 private:
  struct Earlier {
    bool operator()(const EventSource* a, const EventSource* b) const;
  };

  EventLoop();
  ~EventLoop() = delete;
  void watch(int descriptor) const;
  [[noreturn]] void run();
  void fireTimers();
  void fireSignals(int descriptor);
  void setTimerLocked() const;

  const int timer;
  const int events;

  std::mutex mutex;  // guards what follows; taken before a queue's, never the other way round
  std::set<EventSource*, Earlier> timers;
  std::vector<EventSource*> signalSources;
  std::set<int> watchedSignals;  // each by a descriptor of its own, for good
  std::uint64_t lastTurn = 0;
};

/// Nanoseconds on the clock of the timers, which counts the time in suspend: what falls due while
/// the machine sleeps fires when it wakes.
std::uint64_t nowNanoseconds();

}  // namespace quorvane::dispatch
