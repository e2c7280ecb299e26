// "hw.model" from the firmware: the DMI tables of a PC, the device tree of most other machines.
#include <fcntl.h>
#include <sys/sysctl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "Platform/File.h"
#include "Platform/SystemPath.h"

namespace quorvane {
namespace {

/// A sysfs attribute has at most one page (Linux, Documentation/filesystems/sysfs.rst). No model
/// name in a device tree is longer.
constexpr std::size_t maxModelBytes = 4096;

/// Returns the file's text without sysfs's line feed and the device tree's NUL; empty if none.
std::string readFirmwareText(std::string_view path) {
  const Descriptor file = openFile(systemPath(path), O_RDONLY);
  if (!file) return {};
  std::array<std::uint8_t, maxModelBytes> buffer{};
  std::string text(buffer.begin(), buffer.begin() + readAt(file.get(), buffer, 0));
  constexpr std::string_view padding("\n\0", 2);
  text.resize(text.find_last_not_of(padding) + 1);
  return text;
}

std::string machineModel() {
  std::string model = readFirmwareText("/sys/class/dmi/id/product_name");
  if (model.empty()) model = readFirmwareText("/proc/device-tree/model");
  return model;
}

int fail(int error) {
  errno = error;
  return -1;
}

}  // namespace
}  // namespace quorvane

int sysctlbyname(const char* name, void* oldp, size_t* oldlenp, void* newp, size_t newlen) {
  using namespace quorvane;
  if (std::string_view(name) != "hw.model") return fail(ENOENT);
  if (newp != nullptr || newlen != 0) return fail(EPERM);
  const std::string model = machineModel();
  if (model.empty()) return fail(ENOENT);

  const std::size_t size = model.size() + 1;
  const std::size_t capacity = oldp != nullptr ? *oldlenp : size;
  *oldlenp = std::min(size, capacity);
  if (oldp != nullptr) std::memcpy(oldp, model.c_str(), *oldlenp);
  return capacity < size ? fail(ENOMEM) : 0;
}
