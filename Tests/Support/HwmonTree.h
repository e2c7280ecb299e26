// A device of /sys/class/hwmon with two fans, as plain files below a TemporaryRoot, with the links
// as the kernel has them.
#pragma once

#include "Support/TemporaryRoot.h"

namespace quorvane {

/// The files lie in the hwmon entry, as those of macsmc_hwmon and most others do, or else with the
/// parent device, as those of applesmc. Yields their folder, a platform path.
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
