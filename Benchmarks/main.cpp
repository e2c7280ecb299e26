// Measures the helper against the machine's floor, see Documentation/performance.md.
// Scripts/bench builds it and runs it on one processor.
//
// usage: bench [--quick] [GROUP ...]
#include <algorithm>
#include <cstdio>

#include "Bench.h"

namespace quorvane::bench {

double microsecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

namespace {

using Group = std::pair<std::string, void (*)(const Setting&)>;

const Group groups[] = {{"calls", measureCalls},
                        {"pipelines", measurePipelines},
                        {"memory", measureMemory},
                        {"start", measureStartAndStop},
                        {"lease", measureLease}};

/// Runs the named groups, or all groups if `names` is empty.
void run(bool isQuick, const std::vector<std::string>& names) {
  const SimulatedMac mac;
  mac.sh("smcsim create --fans 10; rm $QUORVANE_ROOT/var/lib/quorvane/smc.trace");
  mac.trusted.issue().signExecutable(PROGRAMS_FOLDER "/bench", "com.quorvane.app");
  printHeading();
  for (const auto& [name, measure] : groups) {
    if (names.empty() || std::ranges::count(names, name) > 0) measure({mac, isQuick});
  }
}

}  // namespace
}  // namespace quorvane::bench

int main(int argc, char** argv) {
  std::vector<std::string> names(argv + 1, argv + argc);
  const bool isQuick = std::erase(names, "--quick") > 0;
  try {
    quorvane::bench::run(isQuick, names);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bench: %s\n", error.what());
    return 1;
  }
}
