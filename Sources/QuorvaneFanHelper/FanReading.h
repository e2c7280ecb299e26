// What the SMC tells of a fan, for probe mode and for fanctl. Only reads, over a connection that
// the caller owns and on the caller's thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "QuorvaneFanHelper/HelperSMC.h"

namespace quorvane {

/// Speeds in rpm, without their fractions. Nothing where the key is missing, may not be read or
/// holds no number that fits.
struct FanReading {
  std::optional<std::int64_t> actual, target, minimum, maximum;
  /// 0 automatic, 1 forced.
  std::optional<std::uint8_t> mode;
};

/// Without an SMC that this user may open, every reading is nothing.
void connectIfThere(HelperSMC& smc);

std::optional<std::int64_t> readSpeed(HelperSMC& smc, const std::string& key);

FanReading readFan(HelperSMC& smc, unsigned fan);

}  // namespace quorvane
