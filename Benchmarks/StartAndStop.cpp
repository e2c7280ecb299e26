// From exec until the helper listens, and from SIGTERM until it is gone.
#include <csignal>

#include "Groups.h"

namespace quorvane::bench {
namespace {

double runEmptyProgram(const std::string& root) {
  const auto start = Clock::now();
  Program empty({programsFolder() + "/empty"}, root);
  if (empty.wait() != 0) fail("the empty program failed");
  return microsecondsSince(start) / 1000;
}

double startHelper(const Machine& machine) {
  const auto start = Clock::now();
  const Helper helper(Helper::real, machine);
  return microsecondsSince(start) / 1000;
}

double stopHelperOfTenForcedFans(const Machine& machine) {
  Helper helper(Helper::real, machine);
  Channel channel = machine.enter();
  for (char fan = '0'; fan <= '9'; ++fan) {
    channel.call(writeRequest({'F', fan, 'M', 'd'}, 1));
  }
  const auto start = Clock::now();
  if (helper.stop(SIGTERM) != 0) fail("the helper did not end well");
  return microsecondsSince(start) / 1000;
}

}  // namespace

void measureStartAndStop(Report& report, const Setting& setting) {
  Report::progress("start and stop");
  const Machine machine = setting.machine("start", 10);
  Samples start, stop, bare;
  startHelper(machine);
  for (int round = 0; round < setting.rounds(100); ++round) {
    bare.add(runEmptyProgram(machine.root));
    start.add(startHelper(machine));
    stop.add(stopHelperOfTenForcedFans(machine));
  }
  report.add(
      {"exec to listening",
       "ms",
       std::move(start),
       bare,
       {"<= floor + 10", [](double measured, double floor) { return measured <= floor + 10; }}});
  report.add({"SIGTERM to exit, ten fans forced", "ms", std::move(stop), bare});
}

}  // namespace quorvane::bench
