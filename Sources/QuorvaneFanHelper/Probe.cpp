#include "QuorvaneFanHelper/Probe.h"

#include <cstdio>
#include <cstdlib>
#include <optional>

#include "QuorvaneFanHelper/FanReading.h"

namespace quorvane {
namespace {

template <class Number>
std::string render(const std::optional<Number>& number) {
  return number ? std::to_string(*number) : "—";
}

std::string renderFan(HelperSMC& smc, unsigned index) {
  const FanReading fan = readFan(smc, index);
  return "Fan " + std::to_string(index) + ": Ac=" + render(fan.actual) +
         " Tg=" + render(fan.target) + " Mn=" + render(fan.minimum) + " Mx=" + render(fan.maximum) +
         " Md=" + render(fan.mode);
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
