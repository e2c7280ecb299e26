// Runs the simulation over seeds, and says how to repeat one.
//
// usage: simulation --seed N | --seeds FROM COUNT | --seconds S [FROM] | --hours H [FROM]
//
// The last two run for so long and for so many simulated hours, from a fresh seed unless one is
// named. Exit status 0 when the helper did what it should, 1 when it did not, 2 for bad usage, 3
// when the runs are at fault: too little happened, or not the same twice.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <random>
#include <sstream>

#include "Simulation/Simulation.h"
#include "Support/TemporaryRoot.h"

namespace quorvane::simulation {
namespace {

constexpr int good = 0, broken = 1, badUsage = 2, badRuns = 3;
constexpr int fewestDeeds = 500;
/// So many runs come into every situation.
constexpr std::uint64_t runsForCoverage = 200;
constexpr char situations[] =
    "force,free,ask,odd request,silent client,"
    "startup baseline,write error,lease expired,hard cap,app requested,shutdown,"
    "expiry overtaken,both expiries in line,"
    "suspended with work in line,suspended to a deadline,long idle,"
    "kernel error,result byte,short reply,effect despite an error,slow call,"
    "key gone,key refuses writes,fan count lies,no SMC,"
    "audit log gone,audit log a folder,audit log a fifo,disk full,audit folder a file,"
    "death before a call,death behind a call,death before an audit line,death in start-up";

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;
using Hours = std::chrono::duration<double, std::ratio<3600>>;

struct Session {
  std::string program, root;
  Coverage coverage{};
  std::uint64_t runs = 0, hash = 0;
  Hours simulated{};

  int runOne(std::uint64_t seed);
  int runAll(std::uint64_t first, std::uint64_t count, Seconds limit, Hours hours);
  int verdict();
};

int Session::runOne(std::uint64_t seed) {
  alarm(60);  // a helper that hangs ends the program; a run takes a fraction of a second
  Outcome outcome;
  int status = good;
  try {
    simulate(seed, root, coverage, outcome);
    if (outcome.deeds < fewestDeeds) status = badRuns;
  } catch (const Mismatch& mismatch) {
    status = broken;
    std::cout << "\nThe last of what happened, in nanoseconds:\n";
    for (const std::string& line : outcome.trace) std::cout << "  " << line << "\n";
    std::cout << "expected: " << mismatch.expected << "\nactual:   " << mismatch.actual << "\n";
  }
  if (status != good) {
    std::cout << (status == broken ? "MISMATCH" : "Too little happened") << " with seed " << seed
              << ", after " << outcome.deeds << " deeds.\nTo repeat: " << program << " --seed "
              << seed << std::endl;
  }
  ++runs;
  simulated += outcome.simulated;
  hash = outcome.hash;
  return status;
}

int Session::runAll(std::uint64_t first, std::uint64_t count, Seconds limit, Hours hours) {
  std::cout << "Seeds from " << first << ". To repeat one: " << program << " --seed SEED"
            << std::endl;
  const auto begin = Clock::now();
  std::uint64_t firstHash = 0;
  int told = 0;
  for (std::uint64_t seed = first; seed - first < count; ++seed) {
    if (const int status = runOne(seed); status != good) return status;
    if (seed == first) firstHash = hash;
    const Seconds spent = Clock::now() - begin;
    const bool isLast = seed - first + 1 == count || spent >= limit || simulated >= hours;
    if (!isLast && spent < Seconds(told)) continue;
    std::fprintf(stderr, "%llu seeds, %.0f simulated hours, %.0f simulated seconds a second\n",
                 static_cast<unsigned long long>(runs), simulated.count(),
                 Seconds(simulated) / spent);
    if (isLast) break;
    told += 10;
  }
  if (const int status = runOne(first); status != good) return status;
  std::cout << "Trace hash of the first: " << hash << "\n";
  if (hash == firstHash) return verdict();
  std::cout << "Seed " << first << " did not give the same run twice.\n";
  return badRuns;
}

int Session::verdict() {
  int status = good;
  std::istringstream names(situations);
  for (std::string situation; std::getline(names, situation, ',');) {
    const std::uint64_t count = coverage[situation];
    std::cout << count << "\t" << situation << "\n";
    if (count == 0 && runs >= runsForCoverage) status = badRuns;
  }
  if (status != good) std::cout << "Something never happened.\n";
  return status;
}

int run(const std::vector<std::string>& arguments) {
  // In memory: the audit log is most of what a run costs.
  if (std::filesystem::exists("/dev/shm")) setenv("TMPDIR", "/dev/shm", 1);
  const TemporaryRoot root;
  Session session{arguments[0], root.path("")};
  constexpr auto many = ~std::uint64_t{0};
  constexpr Hours unlimited(1e9);
  const std::size_t count = arguments.size();
  const std::string what = count == 3 || count == 4 ? arguments[1] : "";
  const auto number = [&arguments](std::size_t at) {
    return std::strtoull(arguments[at].c_str(), nullptr, 0);
  };
  int status = badUsage;
  const std::uint64_t fresh = count == 4 ? number(3) : std::random_device{}();
  if (what == "--seed" && count == 3) status = session.runAll(number(2), 1, unlimited, unlimited);
  if (what == "--seeds" && count == 4)
    status = session.runAll(number(2), number(3), unlimited, unlimited);
  if (what == "--seconds") status = session.runAll(fresh, many, Seconds(number(2)), unlimited);
  if (what == "--hours") status = session.runAll(fresh, many, unlimited, Hours(number(2)));
  if (status == badUsage) {
    std::cerr << "usage: simulation --seed N | --seeds FROM COUNT | --seconds S [FROM] | "
                 "--hours H [FROM]\n";
  }
  return status;
}

}  // namespace
}  // namespace quorvane::simulation

int main(int argc, char** argv) {
  return quorvane::simulation::run({argv, argv + argc});
}
