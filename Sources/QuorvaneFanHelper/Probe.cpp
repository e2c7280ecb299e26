#include "QuorvaneFanHelper/Probe.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>

#include "QuorvaneFanHelper/HelperSMC.h"

namespace quorvane {
namespace {

constexpr char absentMark[] = "—";

std::string renderNumber(double value) {
  // Outside these bounds, and for NaN, the conversion would be undefined.
  if (!(value >= -0x1p63 && value < 0x1p63)) return absentMark;
  return std::to_string(static_cast<std::int64_t>(value));
}

std::string renderSpeed(HelperSMC& smc, const std::string& key) {
  const std::optional<KeyInfo> info = smc.keyInfo(HelperSMC::keyCode(key));
  if (!info) return absentMark;
  const auto bytes = smc.readRaw(key);
  if (!bytes) return absentMark;
  const std::optional<double> speed = HelperSMC::decode(*bytes, info->dataType, info->dataSize);
  return speed ? renderNumber(*speed) : absentMark;
}

std::string renderMode(HelperSMC& smc, const std::string& key) {
  const std::optional<std::uint8_t> mode = smc.readByte(key);
  return mode ? std::to_string(*mode) : absentMark;
}

std::string renderFan(HelperSMC& smc, unsigned index) {
  const std::string number = std::to_string(index);
  const std::string fan = "F" + number;
  std::string line = "Fan " + number + ":";
  for (const char* suffix : {"Ac", "Tg", "Mn", "Mx"}) {
    line.append(" ").append(suffix).append("=").append(renderSpeed(smc, fan + suffix));
  }
  return line + " Md=" + renderMode(smc, fan + "Md");
}

}  // namespace

int listFans(const std::function<void(const std::string& line)>& print) {
  HelperSMC smc;
  try {
    smc.connect();
  } catch (const SMCError& error) {
    print("SMC open failed: " + error.text());
    return EXIT_FAILURE;
  }
  const unsigned fanCount = smc.readByte("FNum").value_or(0);
  print("fanCount=" + std::to_string(fanCount));
  for (unsigned index = 0; index < fanCount; ++index) print(renderFan(smc, index));
  smc.close();
  return EXIT_SUCCESS;
}

void runProbe() {
  std::exit(listFans([](const std::string& line) { std::puts(line.c_str()); }));
}

}  // namespace quorvane
