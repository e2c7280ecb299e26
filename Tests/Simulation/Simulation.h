// One run: the real service and the real HelperSMC on the virtual dispatch and a machine that fails
// at random, with clients, signals, deaths and restarts, all drawn from one seed. After each event
// what the helper did is held against the Model and the Promises. One run at a time.
#pragma once

#include <deque>

#include "Simulation/Deeds.h"

namespace quorvane::simulation {

struct Outcome {
  Time simulated{};
  int deeds = 0;
  /// Of all that happened, but for the time of day.
  std::uint64_t hash = 14695981039346656037U;
  /// The last lines of what happened.
  std::deque<std::string> trace;
};

/// The audit log lies below `root`, a folder. Throws Mismatch; `outcome` is told up to there.
void simulate(std::uint64_t seed, const std::string& root, Coverage& coverage, Outcome& outcome);

}  // namespace quorvane::simulation
