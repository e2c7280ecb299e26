// One run: the real service and the real HelperSMC on the virtual dispatch and a machine that fails
// at random, with clients, signals, deaths and restarts, all drawn from one seed. After each event
// what the helper did is held against the Model. One run at a time.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>

namespace quorvane::simulation {

using Time = std::chrono::nanoseconds;
/// How often the runs came into each situation; 0 for one that could have come up and never did.
using Coverage = std::map<std::string, std::uint64_t>;

struct Outcome {
  Time simulated{};
  /// Of all that happened.
  std::uint64_t hash = 14695981039346656037U;
  /// The last of what happened, and what should have; empty when the helper did what it should.
  std::string failure{};
};

Outcome simulate(std::uint64_t seed, Coverage& coverage);

}  // namespace quorvane::simulation
