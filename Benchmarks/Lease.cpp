// How late the lease expires: the time from the last write to the hardware until the restore, minus
// the lease, by the hardware's clock. Each takes twenty real seconds, so the machines overlap.
#include <deque>
#include <thread>

#include "Bench.h"

namespace quorvane::bench {
namespace {

using namespace std::chrono_literals;

constexpr std::chrono::seconds lease(FanControlConstants::leaseSeconds);

/// A machine with a forced fan.
struct Holder {
  Holder() {
    mac.sh("fanctl write F0Tg 2500");
    mac.modes(&written);
  }
  [[nodiscard]] double microsecondsLate() const {
    std::chrono::nanoseconds restored{};
    mac.modes(&restored);
    if (restored == written) throw std::runtime_error("the lease has not expired");
    return std::chrono::duration<double, std::micro>(restored - written - lease).count();
  }

  SimulatedMac mac;
  std::unique_ptr<Process> process = mac.start(helper);
  Clock::time_point begin = Clock::now();
  std::chrono::nanoseconds written{};
};

/// The command that runs eight clients for 0.7 s. They request the status without a pause.
std::string flood(const SimulatedMac& mac) {
  return "env QUORVANE_ROOT=" + mac.root.path("") +
         " timeout 0.7 sh -c 'for i in 1 2 3 4 5 6 7 8; " + "do yes status | " +
         mac.root.path("/bin/fanctl") + " batch >/dev/null & done; wait'";
}

void measure(const std::string& what, int count, bool isFlooded, std::optional<double> aim) {
  std::deque<Holder> holders;
  for (; count > 0; --count) {
    holders.emplace_back();
    std::this_thread::sleep_for(1s);  // the leases expire one after the other
  }
  Figure figure{what, "us", {}, {}, aim};
  for (const Holder& holder : holders) {
    const Clock::time_point due = holder.begin + lease;
    std::this_thread::sleep_until(due - 400ms);
    Process load(isFlooded ? flood(holder.mac) : "true");
    std::this_thread::sleep_until(due);
    figure.floor.push_back(microsecondsSince(due));
    std::this_thread::sleep_until(due + 200ms);
    figure.measured.push_back(holder.microsecondsLate());
    load.stop(0);
  }
  print(figure);
}

}  // namespace

void measureLease(const Setting& setting) {
  measure("lease expires late", setting.rounds(10), /*isFlooded=*/false, 5);
  measure("the same, eight busy clients", setting.rounds(10), /*isFlooded=*/true, std::nullopt);
}

}  // namespace quorvane::bench
