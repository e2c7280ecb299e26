#include "QuorvaneFanHelper/FanReading.h"

namespace quorvane {

void connectIfThere(HelperSMC& smc) {
  try {
    smc.connect();
  } catch (const SMCError&) {
    // The readings stay empty.
  }
}

std::optional<std::int64_t> readSpeed(HelperSMC& smc, const std::string& key) {
  const std::optional<KeyInfo> info = smc.keyInfo(HelperSMC::keyCode(key));
  if (!info) return std::nullopt;
  const auto bytes = smc.readRaw(key);
  if (!bytes) return std::nullopt;
  const std::optional<double> speed = HelperSMC::decode(*bytes, info->dataType, info->dataSize);
  // The conversion is undefined outside these bounds and for NaN.
  if (!speed || !(*speed >= -0x1p63 && *speed < 0x1p63)) return std::nullopt;
  return static_cast<std::int64_t>(*speed);
}

FanReading readFan(HelperSMC& smc, unsigned fan) {
  const std::string prefix = "F" + std::to_string(fan);
  return {readSpeed(smc, prefix + "Ac"), readSpeed(smc, prefix + "Tg"),
          readSpeed(smc, prefix + "Mn"), readSpeed(smc, prefix + "Mx"),
          smc.readByte(prefix + "Md")};
}

}  // namespace quorvane
