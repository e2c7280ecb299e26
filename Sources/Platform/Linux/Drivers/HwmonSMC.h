// The user client in front of the kernel's fan files. It serves the AppleSMC driver's records for
// the keys "FNum" and, of each fan, "F0Ac", "F0Mn", "F0Mx", "F0Tg" (rpm) and "F0Md" (the mode, 0
// automatic, 1 forced). Key F0 is the kernel's fan1. Every call reads the files anew; the client
// remembers only which fans are known to be handed back. Calls come from one thread at a time.
//
// SMC results: 132 no such key or file, 133 not readable, 134 not writable, 135 another size or
// type than the key's, 137 a refused value, 183 no reply from the SMC in time, 1 any other error.
// Kernel errors: kIOReturnBadArgument for a call that is not the driver's, kIOReturnNoDevice while
// the device is gone; the next call after its return finds it.
//
// A target is clamped to the fan's present limits. It is not written if they cannot be read or
// contradict each other.
//
// macsmc_hwmon has no mode file: the mode is written through the target and cannot be read (133).
// Each fan's first hand-back, and the first after a failed target, also sets the driver's own flag.
// A target that becomes 0 is refused there (137): it would hand the fan back, not stop it.
#pragma once

#include <bitset>
#include <optional>
#include <string>
#include <utility>

#include "Platform/Linux/Drivers/HwmonDevice.h"
#include "Platform/Linux/Drivers/SMCCall.h"
#include "Platform/Linux/IOKitRegistry.h"

namespace quorvane::hwmon {

/// The number of fans with key names of four characters. Fans beyond these, or after a gap in the
/// kernel's numbers (no driver leaves one), are neither counted nor offered. The count, and so
/// every restore, includes every fan that can be forced.
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

  // Each returns 0 or an errno value, Number and Limits in a field. Fans count from 0.
  [[nodiscard]] Number number(const std::string& file) const;
  [[nodiscard]] Limits limits(unsigned fan) const;
  int writeMode(unsigned fan, unsigned mode);
  int writeTarget(unsigned fan, double rpm);
  int handBack(unsigned fan);

  const DeviceFinder find;
  std::optional<Device> device;
  /// On macsmc_hwmon: the fans whose driver's own flag is known to follow the SMC's mode.
  std::bitset<fanCountMax> handedBack;
};

}  // namespace quorvane::hwmon
