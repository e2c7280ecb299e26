// Runs the simulation over seeds, from a fresh one unless it is named, until a limit is reached,
// and says how to repeat one. Exit status 0 when the helper did what it should, 1 when it did not,
// 2 for bad usage, 3 when the runs are at fault: too little happened, or not the same twice.
//
// usage: simulation [--seed FIRST] [--runs N] [--seconds N] [--hours N]
#include <unistd.h>

#include <cmath>
#include <iostream>
#include <limits>
#include <random>

#include "Simulation/Simulation.h"

namespace quorvane::simulation {
namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;
using Hours = std::chrono::duration<double, std::ratio<3600>>;
/// The number given with each option.
using Options = std::map<std::string, std::uint64_t>;

constexpr int good = 0, broken = 1, badUsage = 2, badRuns = 3;
constexpr int fewestDeeds = 500;
/// So many runs come into every situation.
constexpr std::uint64_t runsForCoverage = 200;
constexpr std::uint64_t unlimited = std::numeric_limits<std::uint64_t>::max();

int run(const std::string& program, const Options& options) {
  const std::uint64_t firstSeed = options.at("--seed");
  std::cout << "Seeds from " << firstSeed << ". To repeat one: " << program
            << " --seed SEED --runs 1" << std::endl;
  const TemporaryRoot root;
  const auto begin = Clock::now();
  Coverage coverage;  // the machine and the clients name theirs themselves
  for (const char* ending : {"startup baseline", "write error", "lease expired", "hard cap",
                             "app requested", "shutdown", "expiry overtaken"}) {
    coverage[ending] = 0;
  }
  Outcome first;
  Hours simulated{};
  auto nextProgress = begin;
  std::uint64_t runs = 0;
  for (bool isLast = false; !isLast; ++runs) {
    alarm(60);  // a helper that hangs ends the program; a run takes a fraction of a second
    const Outcome outcome = simulate(firstSeed + runs, root, coverage);
    if (runs == 0) first = outcome;
    if (!outcome.failure.empty() || outcome.deeds < fewestDeeds) {
      std::cout << outcome.failure << "\nFAILED with seed " << firstSeed + runs << ", after "
                << outcome.deeds << " deeds, of which there must be " << fewestDeeds << std::endl;
      return outcome.failure.empty() ? badRuns : broken;
    }
    simulated += outcome.simulated;
    const Seconds spent = Clock::now() - begin;
    isLast = runs + 1 == options.at("--runs") || spent >= Seconds(options.at("--seconds")) ||
             simulated >= Hours(options.at("--hours"));
    if (!isLast && Clock::now() < nextProgress) continue;
    nextProgress += std::chrono::seconds(10);
    std::cerr << runs + 1 << " seeds, " << std::llround(simulated.count()) << " simulated hours, "
              << std::llround(Seconds(simulated) / spent) << " simulated seconds a second\n";
  }
  bool isComplete = true;
  for (const auto& [situation, count] : coverage) {
    std::cout << count << "\t" << situation << "\n";
    isComplete &= count > 0 || runs < runsForCoverage;
  }
  const bool isRepeatable = simulate(firstSeed, root, coverage).hash == first.hash;
  std::cout << "Trace hash of the first: " << first.hash << "\n"
            << (isComplete ? "" : "Something never happened.\n")
            << (isRepeatable ? "" : "The first did not give the same run twice.\n");
  return isComplete && isRepeatable ? good : badRuns;
}

}  // namespace
}  // namespace quorvane::simulation

int main(int argc, char** argv) {
  using namespace quorvane::simulation;
  // In memory: the audit log is most of what a run costs.
  if (std::filesystem::exists("/dev/shm")) setenv("TMPDIR", "/dev/shm", 1);
  Options options{{"--seed", std::random_device()()},
                  {"--runs", unlimited},
                  {"--seconds", unlimited},
                  {"--hours", unlimited}};
  for (int i = 1; i < argc; i += 2) {
    const auto option = options.find(argv[i]);
    char* end = nullptr;
    if (option != options.end() && i + 1 < argc) option->second = strtoull(argv[i + 1], &end, 0);
    if (end == nullptr || *end != '\0') {
      std::cerr << "usage: simulation [--seed FIRST] [--runs N] [--seconds N] [--hours N]\n";
      return badUsage;
    }
  }
  return run(argv[0], options);
}
