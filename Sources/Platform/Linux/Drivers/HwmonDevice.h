// The kernel device that shows a Mac's fans on Linux: how it is found, and its attribute files. The
// facts come from the kernel's drivers/hwmon/applesmc.c (Intel) and macsmc-hwmon.c (Apple Silicon).
// A device belongs to one user client and is used by one thread at a time.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Linux/Drivers/SMCCall.h"

namespace quorvane::hwmon {

/// The differences between the two kernel drivers. Both count fans from 1, use decimal rpm, and
/// have the files "fan1_input" (the actual speed), "fan1_min" and "fan1_max".
struct KernelDriver {
  /// The whole text of the device's file "name".
  std::string_view device;
  /// The type of a speed, as in the SMCs behind these drivers.
  FourCC speedType;
  /// The file "fan1_" plus this sets the target.
  std::string_view target;
  /// The file "fan1_" plus this takes 0 (automatic) and 1 (manual). Empty if there is none: then a
  /// target enters manual mode, and a target of 0 leaves it.
  std::string_view mode;
};
inline constexpr KernelDriver applesmc{"applesmc", smc::typeFPE2, "output", "manual"};
inline constexpr KernelDriver macsmc{"macsmc_hwmon", smc::typeFLT, "target", ""};

struct Text {
  /// 0 or an errno value.
  int error = 0;
  std::string text;
};

/// A folder of attribute files. It keeps nothing between calls: each opens one file, reads or
/// writes it with one system call, and closes it. A seam for tests.
class Folder {
 public:
  virtual ~Folder() = default;
  [[nodiscard]] virtual bool has(const std::string& file) const = 0;
  /// Returns the file's text without its last line feed; EFBIG if longer than any attribute here.
  [[nodiscard]] virtual Text read(const std::string& file) const = 0;
  /// Returns 0 or an errno value. Never creates a file.
  virtual int write(const std::string& file, std::string_view text) = 0;
};

struct Device {
  const KernelDriver* driver = nullptr;
  /// After the device is gone its files stay missing, even if another one takes its number.
  std::unique_ptr<Folder> folder;

  /// Returns whether the device is still registered.
  [[nodiscard]] bool isPresent() const { return folder->read("name").text == driver->device; }
};

using DeviceFinder = std::function<std::optional<Device>()>;

/// Finds the device of one of the two drivers in "/sys/class/hwmon" below the system root. Of
/// several it takes the one with the lowest number. Of other devices it reads the name only.
std::optional<Device> findDevice();

}  // namespace quorvane::hwmon
