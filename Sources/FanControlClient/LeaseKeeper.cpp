#include "FanControlClient/LeaseKeeper.h"

#include <pthread.h>
#include <signal.h>

#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "FanControlClient/FanControlClient.h"
#include "FanControlClient/Lease.h"
#include "Platform/Clock.h"

namespace quorvane {

class LeaseKeeper::Implementation {
 public:
  explicit Implementation(Handler toTell) : handler(std::move(toTell)), thread([this] { run(); }) {}

  ~Implementation() {
    {
      const std::lock_guard lock(mutex);
      isStopping = true;
    }
    changed.notify_one();
    thread.join();
  }

  /// Requests a speed to hold the fan at, or nothing to release it. The last request for a fan
  /// counts.
  void ask(int fan, std::optional<std::int64_t> rpm) {
    {
      const std::lock_guard lock(mutex);
      wanted[fan] = rpm;
    }
    changed.notify_one();
  }

 private:
  using Requests = std::map<int, std::optional<std::int64_t>>;

  void run() {
    // The companion's signals belong to its own threads.
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, nullptr);

    FanControlClient client;
    Lease lease(client, [this](int fan, FanEvent event, const std::string& text) {
      tell(fan, event, text);
    });
    std::optional<Lease::Duration> due;
    for (;;) {
      const std::optional<Requests> requests = nextRequests(due);
      if (!requests) break;
      for (const auto& [fan, rpm] : *requests) rpm ? lease.hold(fan, *rpm) : lease.release(fan);
      due = lease.advance();
    }
    lease.releaseAll(FanEvent::givenBack);
  }

  /// Returns the requests made by `due`, or nothing if the keeper must stop.
  std::optional<Requests> nextRequests(std::optional<Lease::Duration> due) {
    std::unique_lock lock(mutex);
    const auto isAsked = [this] { return isStopping || !wanted.empty(); };
    if (due) {
      changed.wait_for(lock, *due - monotonicTime(), isAsked);
    } else {
      changed.wait(lock, isAsked);
    }
    if (isStopping) return std::nullopt;
    return std::exchange(wanted, {});
  }

  void tell(int fan, FanEvent event, const std::string& text) {
    // A speed requested before the companion heard of this event must not force the fan again.
    if (event == FanEvent::takenBack || event == FanEvent::periodOver) {
      const std::lock_guard lock(mutex);
      wanted.erase(fan);
    }
    handler(fan, event, text);
  }

  const Handler handler;
  std::mutex mutex;
  std::condition_variable changed;
  // Guarded by the mutex.
  Requests wanted;
  bool isStopping = false;

  std::thread thread;  // last, because it uses the others
};

LeaseKeeper::LeaseKeeper(Handler handler)
    : implementation(std::make_unique<Implementation>(std::move(handler))) {}

LeaseKeeper::~LeaseKeeper() = default;

void LeaseKeeper::hold(int fan, std::int64_t rpm) {
  implementation->ask(fan, rpm);
}

void LeaseKeeper::release(int fan) {
  implementation->ask(fan, std::nullopt);
}

}  // namespace quorvane
