// Runs the simulation over seeds, from a fresh one unless it is named, until a limit is reached,
// and says how to repeat one. Exit status 0 when the helper did what it should, 1 when it did not,
// 2 for bad usage, 3 when the runs are at fault: too little happened, or not the same twice.
//
// usage: simulation [--seed FIRST] [--runs N] [--hours N]
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <limits>
#include <random>

#include "Simulation/Simulation.h"

namespace quorvane::simulation {
namespace {

/// The number given with each option.
using Options = std::map<std::string, std::uint64_t>;

constexpr int good = 0, broken = 1, badUsage = 2, badRuns = 3;
/// So many runs come into every situation.
constexpr std::uint64_t runsForCoverage = 200;
constexpr std::uint64_t unlimited = std::numeric_limits<std::uint64_t>::max();

int run(const std::string& program, const Options& options) {
  const std::uint64_t firstSeed = options.at("--seed");
  std::cout << "Seeds from " << firstSeed << ". To repeat one: " << program
            << " --seed SEED --runs 1" << std::endl;
  Coverage coverage;  // the machine and the clients name theirs themselves
  for (const char* ending : {"startup baseline", "write error", "lease expired", "hard cap",
                             "app requested", "shutdown", "expiry overtaken"}) {
    coverage[ending] = 0;
  }
  Time simulated{};
  std::uint64_t hours = 0;
  std::uint64_t runs = 0;
  while (runs < options.at("--runs") && hours < options.at("--hours")) {
    alarm(60);  // a helper that hangs ends the program; a run takes a fraction of a second
    const Outcome outcome = simulate(firstSeed + runs, coverage);
    if (!outcome.failure.empty()) {
      std::cout << outcome.failure << "\nFAILED with seed " << firstSeed + runs << std::endl;
      return broken;
    }
    ++runs;
    simulated += outcome.simulated;
    hours = static_cast<std::uint64_t>(std::chrono::floor<std::chrono::hours>(simulated).count());
    if (runs % 500 == 0) std::cerr << runs << " seeds, " << hours << " simulated hours\n";
  }
  std::cout << runs << " seeds, " << hours << " simulated hours\n";
  bool isComplete = true;
  for (const auto& [situation, count] : coverage) {
    std::cout << count << "\t" << situation << "\n";
    if (count == 0 && runs >= runsForCoverage) isComplete = false;
  }
  if (!isComplete) std::cout << "Something never happened.\n";
  const std::uint64_t hash = simulate(firstSeed, coverage).hash;
  const bool isRepeatable = simulate(firstSeed, coverage).hash == hash;
  if (!isRepeatable) std::cout << "The first did not give the same run twice.\n";
  return isComplete && isRepeatable ? good : badRuns;
}

}  // namespace
}  // namespace quorvane::simulation

int main(int argc, char** argv) {
  using namespace quorvane::simulation;
  Options options{
      {"--seed", std::random_device()()}, {"--runs", unlimited}, {"--hours", unlimited}};
  for (int i = 1; i < argc; i += 2) {
    const auto option = options.find(argv[i]);
    char* end = nullptr;
    if (option != options.end() && i + 1 < argc) option->second = strtoull(argv[i + 1], &end, 0);
    if (end == nullptr || *end != '\0') {
      std::cerr << "usage: simulation [--seed FIRST] [--runs N] [--hours N]\n";
      return badUsage;
    }
  }
  return run(argv[0], options);
}
