// The kernel device through which Linux shows a Mac's fans: which one it is, and its attribute
// files. Facts are those of the kernel's drivers/hwmon/applesmc.c (Intel) and macsmc-hwmon.c (Apple
// Silicon). A device belongs to one user client and is used by one thread at a time.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Linux/Drivers/SMCCall.h"

namespace quorvane::hwmon {

/// What tells the two kernel drivers apart. Their fans count from 1, speeds are decimal rpm, and
/// the files "fan1_input" (the actual speed), "fan1_min" and "fan1_max" they have in common.
struct KernelDriver {
  /// The whole text of the device's file "name".
  std::string_view device;
  /// The type in which speeds are offered, as the SMCs behind these drivers have them.
  FourCC speedType;
  /// "fan1_" and this is the file that sets the target.
  std::string_view target;
  /// "fan1_" and this takes 0 (automatic) and 1 (manual). Empty where there is no such file: there
  /// a target enters manual mode, and a target of 0 leaves it.
  std::string_view mode;
};
inline constexpr KernelDriver applesmc{"applesmc", smc::typeFPE2, "output", "manual"};
inline constexpr KernelDriver macsmc{"macsmc_hwmon", smc::typeFLT, "target", ""};

struct Text {
  /// 0 or an errno value.
  int error = 0;
  std::string text;
};

/// A folder of attribute files. Nothing is kept between calls: each opens one file, reads or writes
/// it with one call, and closes it. A seam for tests.
class Folder {
 public:
  virtual ~Folder() = default;
  [[nodiscard]] virtual bool has(const std::string& file) const = 0;
  /// The file's text without the line feed at its end; EFBIG when it is longer than any attribute
  /// here.
  [[nodiscard]] virtual Text read(const std::string& file) const = 0;
  /// 0 or an errno value. Makes no file that is not there.
  virtual int write(const std::string& file, std::string_view text) = 0;
};

struct Device {
  const KernelDriver* driver = nullptr;
  /// Once the device has gone its files stay missing, even if another takes its number.
  std::unique_ptr<Folder> folder;

  /// Whether it is still registered.
  [[nodiscard]] bool isPresent() const { return folder->read("name").text == driver->device; }
};

using DeviceFinder = std::function<std::optional<Device>()>;

/// The device below system path "/sys/class/hwmon" that is one of the two; of several, the one with
/// the lowest number. The others are not touched beyond reading their names.
std::optional<Device> findDevice();

}  // namespace quorvane::hwmon
