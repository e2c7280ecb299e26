// The helper at rest: what it holds, and that it does nothing.
#include "Bench.h"

namespace quorvane::bench {
namespace {

/// How often its threads went to sleep or were interrupted: one that sleeps on adds nothing.
double wakeups(const Process& process) {
  return std::stod(test::shell("awk '/ctxt_switches/ { sum += $2 } END { print sum }' /proc/" +
                               std::to_string(process.id()) + "/task/*/status"));
}

double kilobytes(const Process& process) {
  return static_cast<double>(process.peakMemory());
}

}  // namespace

void measureMemory(const Setting& setting) {
  const auto process = setting.mac.start(helper);
  const test::RawChannel channel = connect();
  print({"most memory, one client", "MB", {kilobytes(*process) / 1024}, {}, 4});

  // A manual period that is over must leave nothing behind that wakes.
  call(channel, writeRequest("F0Tg", 2500));
  call(channel, writeRequest("F0Md", 0));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // its threads go to sleep
  const std::chrono::seconds span(setting.isQuick ? 3 : 30);
  const double before = wakeups(*process);
  std::this_thread::sleep_for(span);
  const std::string seconds = std::to_string(span.count());
  print({"wakeups in " + seconds + " s at rest", "", {wakeups(*process) - before}, {}, 0});

  const int count = setting.isQuick ? 100'000 : 1'000'000;
  pipeline(channel, writeRequest("F0Tg", 2500), count / 10);
  const double first = kilobytes(*process);
  pipeline(channel, writeRequest("F0Tg", 2500), count);
  const std::string writes = std::to_string(count);
  print({"growth over " + writes + " writes", "kB", {kilobytes(*process) - first}, {}, 64});
}

}  // namespace quorvane::bench
