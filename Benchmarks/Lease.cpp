// How late the lease expires. Twenty real seconds each, so many helpers hold a lease at once.
#include <sys/timerfd.h>
#include <unistd.h>

#include <deque>
#include <optional>
#include <thread>

#include "Groups.h"
#include "QRVFanShared/FanControlXPC.h"

namespace quorvane::bench {
namespace {

constexpr std::chrono::seconds lease(FanControlConstants::leaseSeconds);

/// Counted from before it is made.
class Timer {
 public:
  Timer() : start(Clock::now()) {
    const itimerspec once{{}, {lease.count(), 0}};
    timerfd_settime(descriptor.get(), 0, &once, nullptr);
  }
  double waitUntilLate() const {
    std::uint64_t count = 0;
    if (read(descriptor.get(), &count, sizeof count) < 0) fail("no timer");
    return microsecondsSince(start + lease) / 1000;
  }

 private:
  Clock::time_point start;
  Descriptor descriptor{timerfd_create(CLOCK_BOOTTIME, TFD_CLOEXEC)};
};

/// A helper with a lease, counted from before the write is sent.
class Leased {
 public:
  explicit Leased(Machine on) : machine(std::move(on)), helper(Helper::fast, machine) {
    Channel channel = machine.enter();
    start = Clock::now();
    channel.call(writeRequest("F0Tg", 2500));
  }
  /// It says so before it does anything else about it.
  double waitUntilLate() {
    helper.waitForLine("lease expired");
    return microsecondsSince(start + lease) / 1000;
  }
  void sleepUntilShortlyBefore(std::chrono::milliseconds time) const {
    std::this_thread::sleep_until(start + lease - time);
  }

  const Machine machine;

 private:
  Helper helper;
  Clock::time_point start;
};

struct Holder {
  std::optional<Leased> leased;
  std::optional<Timer> timer;
};

/// Helpers and timers in turns, far enough apart that none has to wait for this program.
std::deque<Holder> hold(const Setting& setting, const std::string& name, int count,
                        std::chrono::milliseconds distance) {
  std::deque<Holder> holders(static_cast<std::size_t>(count));
  for (Holder& holder : holders) {
    holder.timer.emplace();
    std::this_thread::sleep_for(distance / 2);
    holder.leased.emplace(setting.machine(name + std::to_string(count--)));
    std::this_thread::sleep_for(distance / 2);
  }
  return holders;
}

void measureIdle(Report& report, const Setting& setting) {
  Report::progress("lease, idle (20 s)");
  Samples late, bare;
  for (Holder& holder : hold(setting, "idle", 20, std::chrono::milliseconds(20))) {
    bare.add(holder.timer->waitUntilLate());
    late.add(holder.leased->waitUntilLate());
  }
  report.add({"lease expires late, idle",
              "ms",
              std::move(late),
              std::move(bare),
              {"<= 1", [](double measured, double /*floor*/) { return measured <= 1; }}});
}

/// The helpers and what floods them are on one processor, this program on the other.
void measureUnderFlood(Report& report, const Setting& setting) {
  Report::progress("lease, under a flood of writes (30 s)");
  Samples late, bare;
  runOn(processor);
  const int count = setting.quick ? 3 : 10;
  std::deque<Holder> holders = hold(setting, "flooded", count, std::chrono::milliseconds(1000));
  for (Holder& holder : holders) {
    holder.leased->sleepUntilShortlyBefore(std::chrono::milliseconds(900));
    runOn(processor);
    const Program flood({programsFolder() + "/bench", "flood", holder.leased->machine.root},
                        holder.leased->machine.root);
    runOn(otherProcessor);
    bare.add(holder.timer->waitUntilLate());
    late.add(holder.leased->waitUntilLate());
  }
  report.add(
      {"lease expires late, write flood, two cores", "ms", std::move(late), std::move(bare)});
  runOn(processor);
}

}  // namespace

/// Releases never renew.
int floodWithReleases(const std::string& root) {
  std::vector<Channel> channels;
  channels.push_back(Channel::enter(root));
  pipeline(channels, {writeRequest("F1Md", 0)}, 1'000'000'000);
  return 0;
}

void measureLease(Report& report, const Setting& setting) {
  measureIdle(report, setting);
  measureUnderFlood(report, setting);
}

}  // namespace quorvane::bench
