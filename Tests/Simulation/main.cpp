// Runs the simulation over seeds, from a fresh one unless it is named, until a limit is reached,
// and says how to repeat one. Exit status 0 when the helper did what it should, 1 when it did not,
// 2 for bad usage, 3 when too little happened.
//
// usage: simulation [--seed FIRST] [--runs N] [--hours N]
#include <cstdlib>
#include <iostream>

#include "QuorvaneFanHelper/AuditLog.h"
#include "Simulation/Simulation.h"

/// In the place of the helper's: the world sees the line.
void quorvane::audit(std::string_view message) {
  simulation::World::current->saw({.text = "audit " + std::string(message)});
}

namespace quorvane::simulation {
namespace {

/// The number given with each option.
using Options = std::map<std::string, std::uint64_t>;

constexpr int good = 0, broken = 1, badUsage = 2, tooLittle = 3;
/// So many runs come into every situation.
constexpr std::uint64_t runsForCoverage = 200;
constexpr std::uint64_t unlimited = std::numeric_limits<std::uint64_t>::max();

int run(const std::string& program, const Options& options) {
  const std::uint64_t firstSeed = options.at("--seed");
  std::cout << "Seeds from " << firstSeed << ". To repeat one: " << program
            << " --seed SEED --runs 1" << std::endl;
  // The machine and the clients name theirs themselves.
  Coverage coverage{{"startup baseline", 0}, {"write error", 0},   {"lease expired", 0},
                    {"hard cap", 0},         {"app requested", 0}, {"shutdown", 0}};
  const std::chrono::duration<double, std::ratio<3600>> limit(options.at("--hours"));
  Time simulated{};
  std::uint64_t runs = 0;
  for (; runs < options.at("--runs") && simulated < limit; ++runs) {
    Simulation simulation(firstSeed + runs, coverage);
    try {
      simulated += simulation.run();
    } catch (const Mismatch& mismatch) {
      for (const std::string& line : simulation.world.trace) std::cout << line << "\n";
      std::cout << "expected: " << mismatch.expected << "\nactual:   " << mismatch.actual
                << "\nFAILED with seed " << firstSeed + runs << std::endl;
      return broken;
    }
    if (runs % 500 == 499) std::cerr << simulated / 1h << " simulated hours so far\n";
  }
  std::cout << runs << " seeds, " << simulated / 1h << " simulated hours\n";
  bool isComplete = runs > 0;
  for (const auto& [situation, count] : coverage) {
    std::cout << count << "\t" << situation << "\n";
    if (count == 0 && runs >= runsForCoverage) isComplete = false;
  }
  if (!isComplete) std::cout << "Something never happened.\n";
  return isComplete ? good : tooLittle;
}

}  // namespace
}  // namespace quorvane::simulation

int main(int argc, char** argv) {
  using namespace quorvane::simulation;
  Options options{
      {"--seed", std::random_device()()}, {"--runs", unlimited}, {"--hours", unlimited}};
  const auto known = options.size();
  for (int i = 1; i + 1 < argc; i += 2) options[argv[i]] = strtoull(argv[i + 1], nullptr, 0);
  if (argc % 2 == 0 || options.size() > known) {
    std::cerr << "usage: simulation [--seed FIRST] [--runs N] [--hours N]\n";
    return badUsage;
  }
  return run(argv[0], options);
}
