// The user client in front of the kernel's fan files: it answers the AppleSMC driver's records for
// the keys "FNum" and, of each fan, "F0Ac", "F0Mn", "F0Mx", "F0Tg" (rpm) and "F0Md" (the mode, 0
// automatic, 1 forced). Key F0 is the kernel's fan1. Nothing is kept but which fans are known to
// have been handed back; every call asks the files anew. Calls come from one thread at a time.
//
// SMC results: 132 no such key or file, 133 not readable, 134 not writable, 135 another size or
// type than the key's, 137 a value that is refused, 183 the SMC did not answer in time, 1 anything
// else. Kernel errors: kIOReturnBadArgument for a call that is not the driver's, kIOReturnNoDevice
// when the device has gone; when it is back, the next call finds it.
//
// A target is brought within the fan's limits as they are at that moment; none is written when they
// cannot be read or contradict each other.
//
// macsmc_hwmon has no mode file: the mode is written through the target, cannot be read (133), and
// each fan's first release, and the first after a target that failed, is made sure of. A target
// that comes to 0 is refused there (137): it would hand the fan back, not stop it.
#pragma once

#include <bitset>
#include <optional>
#include <string>
#include <utility>

#include "Platform/Linux/Drivers/HwmonDevice.h"
#include "Platform/Linux/Drivers/SMCCall.h"
#include "Platform/Linux/IOKitRegistry.h"

namespace quorvane::hwmon {

/// As many as have names of four characters for their keys. Fans past them, or past a gap in the
/// kernel's numbers (which no driver leaves), are neither counted nor offered: whatever can be
/// forced is in the count, and so in every restore.
inline constexpr unsigned fanCountMax = 10;

class HwmonSMC final : public iokit::UserClient {
 public:
  explicit HwmonSMC(DeviceFinder finder) : find(std::move(finder)) {}

  kern_return_t callStructMethod(std::uint32_t selector, const void* input, std::size_t inputSize,
                                 void* output, std::size_t* outputSize) override;

 private:
  struct Key;
  struct Number;
  struct Limits;

  bool bindDevice();
  smc::CallResult serve(const smc::Record& request);
  [[nodiscard]] unsigned fanCount() const;
  [[nodiscard]] std::optional<Key> keyOf(FourCC code) const;
  [[nodiscard]] smc::CallResult read(const Key& key) const;
  smc::CallResult write(const Key& key, const smc::Data& data);

  // All yield 0 or an errno value, in Number and Limits as a field. Fans count from 0.
  [[nodiscard]] Number number(const std::string& file) const;
  [[nodiscard]] Limits limits(unsigned fan) const;
  int writeMode(unsigned fan, unsigned mode);
  int writeTarget(unsigned fan, double rpm);
  int handBack(unsigned fan);

  const DeviceFinder find;
  std::optional<Device> device;
  /// On macsmc_hwmon: fans whose driver's own flag is known to follow the SMC's mode.
  std::bitset<fanCountMax> handedBack;
};

}  // namespace quorvane::hwmon
