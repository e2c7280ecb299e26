// Runs the simulation over consecutive seeds, by default from a random one, until a limit is
// reached. Prints how to repeat a seed. Exit status: 0 if the helper did what it should, 1 if not,
// 2 for bad usage, 3 if nothing ran or a situation never occurred.
//
// usage: simulation [--seed FIRST] [--runs N] [--hours N]
#include <cstdlib>
#include <iostream>

#include "QuorvaneFanHelper/AuditLog.h"
#include "Simulation/Simulation.h"

/// Replaces the helper's audit(): the line becomes a deed.
void quorvane::audit(std::string_view message) {
  simulation::World::current->saw({.text = "audit " + std::string(message)});
}

namespace quorvane::simulation {
namespace {

/// The number of each option.
using Options = std::map<std::string, std::uint64_t>;

constexpr int good = 0, broken = 1, badUsage = 2, tooLittle = 3;
/// After this many runs every situation must have occurred.
constexpr std::uint64_t runsForCoverage = 200;
constexpr std::uint64_t unlimited = std::numeric_limits<std::uint64_t>::max();

int run(const std::string& program, const Options& options) {
  const std::uint64_t firstSeed = options.at("--seed");
  std::cout << "Seeds from " << firstSeed << ". To repeat one: " << program
            << " --seed SEED --runs 1" << std::endl;
  // World::happens() adds the situations of the machine and the clients.
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
