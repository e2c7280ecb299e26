// A device of /sys/class/hwmon with two fans: plain files in a TemporaryRoot, with the kernel's
// links between the folders.
#pragma once

#include "Support/TemporaryRoot.h"

namespace quorvane {

/// Creates the device. Its files are in the hwmon entry, as with macsmc_hwmon and most drivers, or
/// in the parent device, as with applesmc. Returns their folder, a platform path.
inline std::string plantHwmon(const TemporaryRoot& root, const std::string& name, bool inEntry,
                              const std::string& number = "1") {
  const std::string parent = "/devices/mac" + number, entry = parent + "/hwmon/hwmon" + number;
  std::filesystem::create_symlink("../../../mac" + number,
                                  root.prepare("/sys" + entry + "/device"));
  std::filesystem::create_symlink("../.." + entry, root.prepare("/sys/class/hwmon/hwmon" + number));
  const std::string folder = "/sys" + (inEntry ? entry : parent) + "/";
  root.write(folder + "name", name + "\n");
  for (const std::string fan : {"fan1_", "fan2_"}) {
    root.write(folder + fan + "input", "1400\n");
    root.write(folder + fan + (inEntry ? "target" : "output"), "1400\n");
    root.write(folder + fan + "min", "1200\n");
    root.write(folder + fan + "max", "5900\n");
    if (!inEntry) root.write(folder + fan + "manual", "0\n");
  }
  return folder;
}

}  // namespace quorvane
