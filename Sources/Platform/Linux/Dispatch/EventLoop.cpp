#include "Platform/Linux/Dispatch/EventLoop.h"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "Platform/Clock.h"
#include "Platform/File.h"
#include "Platform/Linux/DetachedThread.h"
#include "Platform/Linux/ServiceManager.h"

namespace quorvane::dispatch {
namespace {

/// Returns the result of a call that the layer depends on. Ends the process if it failed.
int required(int result, const char* otherwise) {
  if (result < 0) fatal(otherwise, errno);
  return result;
}

/// Returns whether the signal asks the process to end. A process with a source for it ends in its
/// own way.
bool asksToEnd(int signal) {
  return signal == SIGTERM || signal == SIGINT;
}

}  // namespace

std::uint64_t nowNanoseconds() {
  return static_cast<std::uint64_t>(monotonicTime().count());
}

EventSource::EventSource(SerialQueue& target, int signalNumber)
    : signal(signalNumber), queue(target) {
  queue.retain();
}

void EventSource::fire() {
  if (waiting.exchange(true)) return;
  queue.async({[](void* self) { static_cast<EventSource*>(self)->runHandler(); }, this});
}

void EventSource::runHandler() {
  waiting = false;
  if (!cancelled && handler != nullptr) handler(context);
}

void EventSource::release() {
  queue.async({[](void* self) { static_cast<EventSource*>(self)->finish(); }, this});
}

void EventSource::finish() {
  if (finalizer != nullptr) finalizer(context);
  SerialQueue& target = queue;
  delete this;
  target.release();
}

EventLoop& EventLoop::shared() {
  static const NoDestructor<EventLoop> loop;
  return *loop;
}

EventLoop::EventLoop()
    : timer(required(timerfd_create(CLOCK_BOOTTIME, TFD_CLOEXEC | TFD_NONBLOCK), "no timerfd")),
      events(required(epoll_create1(EPOLL_CLOEXEC), "no epoll")) {
  // A write to a closed pipe, or beyond the limit of a file's size, must be an error for its
  // caller. It must not end a process that still has to clean up.
  ::signal(SIGPIPE, SIG_IGN);
  ::signal(SIGXFSZ, SIG_IGN);
  watch(timer);
  sigemptyset(&watchedSignals);
  signals = required(signalfd(-1, &watchedSignals, SFD_CLOEXEC | SFD_NONBLOCK), "no signalfd");
  watch(signals);
  const int error =
      startDetachedThread([](void* self) -> void* { static_cast<EventLoop*>(self)->run(); }, this);
  if (error != 0) fatal("no thread for the event loop", error);
}

void EventLoop::watch(int descriptor) const {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = descriptor;
  required(epoll_ctl(events, EPOLL_CTL_ADD, descriptor, &event), "no place in epoll");
}

void EventLoop::add(EventSource& source) {
  const std::lock_guard lock(mutex);
  if (source.signal != 0) {
    signalSources.push_back(&source);
    sigaddset(&watchedSignals, source.signal);
    required(signalfd(signals, &watchedSignals, 0), "signal not watched");
  } else if (source.deadline != DISPATCH_TIME_FOREVER) {
    const auto later =
        std::ranges::upper_bound(timers, source.deadline, {}, &EventSource::deadline);
    timers.insert(later, &source);
    if (source.deadline < timerSetTo) setTimerLocked();
  }
}

void EventLoop::cancel(EventSource& source) {
  const std::lock_guard lock(mutex);
  source.cancelled = true;
  std::erase(signalSources, &source);
  if (std::erase(timers, &source) > 0 && timers.empty()) setTimerLocked();
}

void EventLoop::run() {
  prctl(PR_SET_NAME, "dispatch-events");
  for (;;) {
    epoll_event event{};
    required(untilUninterrupted([&] { return epoll_wait(events, &event, 1, /*timeout=*/-1); }),
             "no events");
    if (event.data.fd == timer) {
      fireTimers();
    } else {
      fireSignals();
    }
  }
}

void EventLoop::fireTimers() {
  const std::lock_guard lock(mutex);
  const auto later = std::ranges::upper_bound(timers, nowNanoseconds(), {}, &EventSource::deadline);
  std::for_each(timers.begin(), later, [](EventSource* due) { due->fire(); });
  timers.erase(timers.begin(), later);
  setTimerLocked();
}

void EventLoop::fireSignals() {
  const std::lock_guard lock(mutex);
  signalfd_siginfo delivery{};
  while (read(signals, &delivery, sizeof delivery) == sizeof delivery) {
    for (EventSource* source : signalSources) {
      if (static_cast<std::uint32_t>(source->signal) != delivery.ssi_signo) continue;
      // Before the handler, after which the process may be gone.
      if (asksToEnd(source->signal)) notifyServiceManager("STOPPING=1");
      source->fire();
    }
  }
}

/// Sets the timer to the first deadline, or off. This also clears an unread expiry, see
/// timerfd_create(2), so the descriptor is never read.
void EventLoop::setTimerLocked() {
  itimerspec first{};
  timerSetTo = DISPATCH_TIME_FOREVER;
  if (!timers.empty()) {
    timerSetTo = timers.front()->deadline;
    first.it_value.tv_sec = static_cast<time_t>(timerSetTo / NSEC_PER_SEC);
    first.it_value.tv_nsec = static_cast<long>(timerSetTo % NSEC_PER_SEC);
    if (timerSetTo == DISPATCH_TIME_NOW) first.it_value.tv_nsec = 1;  // all zeros mean off
  }
  required(timerfd_settime(timer, TFD_TIMER_ABSTIME, &first, nullptr), "timer not set");
}

}  // namespace quorvane::dispatch
