// The SMC's data about a fan, for probe mode and for fanctl. Only reads, over the caller's
// connection and on the caller's thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "QuorvaneFanHelper/HelperSMC.h"

namespace quorvane {

/// Speeds in rpm, without their fractions. A field is empty if its key is missing, cannot be read
/// or holds no number that fits.
struct FanReading {
  std::optional<std::int64_t> actual, target, minimum, maximum;
  /// 0 automatic, 1 forced.
  std::optional<std::uint8_t> mode;
};

/// Connects if there is an SMC that this user may open. Otherwise every reading is empty.
void connectIfThere(HelperSMC& smc);

std::optional<std::int64_t> readSpeed(HelperSMC& smc, const std::string& key);

FanReading readFan(HelperSMC& smc, unsigned fan);

}  // namespace quorvane
