#include "Platform/Linux/EventLoop.h"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <tuple>

#include "Platform/Linux/DetachedThread.h"

namespace quorvane::dispatch {
namespace {

/// For what the layer cannot do without.
int required(int result, const char* otherwise) {
  if (result < 0) fatal(otherwise, errno);
  return result;
}

int signalDescriptor(int signal) {
  sigset_t only;
  sigemptyset(&only);
  sigaddset(&only, signal);
  return required(signalfd(-1, &only, SFD_CLOEXEC | SFD_NONBLOCK), "no signalfd");
}

}  // namespace

std::uint64_t nowNanoseconds() {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * NSEC_PER_SEC +
         static_cast<std::uint64_t>(now.tv_nsec);
}

EventSource::EventSource(SerialQueue& target, int signalNumber)
    : signal(signalNumber), queue(target) {
  queue.retain();
}

void EventSource::fire() {
  if (waiting.exchange(true)) return;
  ++references;
  queue.async({[](void* self) { static_cast<EventSource*>(self)->runHandler(); }, this});
}

void EventSource::runHandler() {
  waiting = false;
  if (!cancelled && handler != nullptr) handler(context);
  release();
}

void EventSource::release() {
  if (--references > 0) return;
  queue.async({[](void* self) { static_cast<EventSource*>(self)->finish(); }, this});
}

void EventSource::finish() {
  if (finalizer != nullptr) finalizer(context);
  SerialQueue& target = queue;
  delete this;
  target.release();
}

EventLoop& EventLoop::shared() {
  static EventLoop& loop = *new EventLoop;
  return loop;
}

EventLoop::EventLoop()
    : timer(required(timerfd_create(CLOCK_BOOTTIME, TFD_CLOEXEC | TFD_NONBLOCK), "no timerfd")),
      events(required(epoll_create1(EPOLL_CLOEXEC), "no epoll")) {
  // A write into a closed pipe, or past the limit of a file's size, is an error to its caller; it
  // must not end a process that still has to clean up.
  ::signal(SIGPIPE, SIG_IGN);
  ::signal(SIGXFSZ, SIG_IGN);
  watch(timer);
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
  const std::scoped_lock lock(mutex);
  if (source.cancelled) return;
  if (source.signal != 0) {
    signalSources.push_back(&source);
    if (watchedSignals.insert(source.signal).second) watch(signalDescriptor(source.signal));
  } else if (source.deadline != DISPATCH_TIME_FOREVER) {
    source.turn = ++lastTurn;
    timers.insert(&source);
    setTimerLocked();
  }
}

void EventLoop::cancel(EventSource& source) {
  const std::scoped_lock lock(mutex);
  source.cancelled = true;
  std::erase(signalSources, &source);
  if (timers.erase(&source) > 0) setTimerLocked();
}

bool EventLoop::Earlier::operator()(const EventSource* a, const EventSource* b) const {
  return std::tie(a->deadline, a->turn) < std::tie(b->deadline, b->turn);
}

void EventLoop::run() {
  prctl(PR_SET_NAME, "dispatch-events");
  for (;;) {
    epoll_event event{};
    const int count = epoll_wait(events, &event, 1, /*timeout=*/-1);
    if (count < 0 && errno == EINTR) continue;
    required(count, "no events");
    if (event.data.fd == timer) {
      fireTimers();
    } else {
      fireSignals(event.data.fd);
    }
  }
}

void EventLoop::fireTimers() {
  const std::scoped_lock lock(mutex);
  const std::uint64_t now = nowNanoseconds();
  while (!timers.empty() && (*timers.begin())->deadline <= now) {
    (*timers.begin())->fire();
    timers.erase(timers.begin());
  }
  setTimerLocked();
}

void EventLoop::fireSignals(int descriptor) {
  signalfd_siginfo delivery{};
  while (read(descriptor, &delivery, sizeof delivery) == sizeof delivery) {
    const std::scoped_lock lock(mutex);
    for (EventSource* source : signalSources) {
      if (static_cast<std::uint32_t>(source->signal) == delivery.ssi_signo) source->fire();
    }
  }
}

/// Sets the timer to the first deadline, or off. That also takes back an expiry which nobody has
/// read, see timerfd_create(2), so the descriptor is never read.
void EventLoop::setTimerLocked() const {
  itimerspec first{};
  if (!timers.empty()) {
    const dispatch_time_t deadline = (*timers.begin())->deadline;
    first.it_value.tv_sec = static_cast<time_t>(deadline / NSEC_PER_SEC);
    first.it_value.tv_nsec = static_cast<long>(deadline % NSEC_PER_SEC);
    if (deadline == DISPATCH_TIME_NOW) first.it_value.tv_nsec = 1;  // all zero would mean off
  }
  required(timerfd_settime(timer, TFD_TIMER_ABSTIME, &first, nullptr), "timer not set");
}

}  // namespace quorvane::dispatch
