// The helper's memory, and its wakeups at rest.
#include <thread>

#include "Bench.h"

namespace quorvane::bench {
namespace {

/// Returns the sum of a field over files of proc(5).
double sumOf(const std::string& field, const Process& process, const std::string& files) {
  return std::stod(test::shell("awk '/" + field + "/ { sum += $2 } END { print sum }' /proc/" +
                               std::to_string(process.id()) + "/" + files));
}

}  // namespace

void measureMemory(const Setting& setting) {
  const auto process = setting.mac.start(helper);
  const auto kilobytes = [&process] { return sumOf("VmHWM", *process, "status"); };
  // A thread that stays asleep adds no context switch.
  const auto wakeups = [&process] { return sumOf("ctxt_switches", *process, "task/*/status"); };
  const test::RawChannel channel = connect();
  print({"most memory, one client", "MB", {kilobytes() / 1024}, {}, 4});

  // A manual period that has ended must leave nothing that wakes the helper.
  call(channel, test::writeRequest("F0Tg", 2500));
  call(channel, test::writeRequest("F0Md", 0));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // its threads go to sleep
  const std::chrono::seconds span(setting.isQuick ? 3 : 30);
  const double before = wakeups();
  std::this_thread::sleep_for(span);
  const std::string seconds = std::to_string(span.count());
  print({"wakeups in " + seconds + " s at rest", "", {wakeups() - before}, {}, 0});

  const int count = setting.isQuick ? 100'000 : 1'000'000;
  pipeline(channel, test::writeRequest("F0Tg", 2500), count / 10);
  const double first = kilobytes();
  pipeline(channel, test::writeRequest("F0Tg", 2500), count);
  const std::string writes = std::to_string(count);
  print({"growth over " + writes + " writes", "kB", {kilobytes() - first}, {}, 64});
}

}  // namespace quorvane::bench
