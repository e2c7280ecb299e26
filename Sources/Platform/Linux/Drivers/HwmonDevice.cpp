#include "Platform/Linux/Drivers/HwmonDevice.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <filesystem>
#include <map>
#include <system_error>

#include "Platform/File.h"
#include "Platform/SystemPath.h"

namespace quorvane::hwmon {
namespace {

constexpr std::string_view classFolder = "/sys/class/hwmon";
constexpr std::string_view entryPrefix = "hwmon";

/// More than a device's name, the longest text of use here; the kernel allows a page.
constexpr std::size_t textSizeMax = 64;

class OpenFolder final : public Folder {
 public:
  explicit OpenFolder(Descriptor opened) : folder(std::move(opened)) {}

  [[nodiscard]] bool has(const std::string& file) const override {
    return faccessat(folder.get(), file.c_str(), F_OK, 0) == 0;
  }

  [[nodiscard]] Text read(const std::string& file) const override {
    const Descriptor opened = openFileAt(folder.get(), file, O_RDONLY);
    if (!opened) return {errno, {}};
    std::array<char, textSizeMax + 1> buffer{};
    const ssize_t count =
        untilUninterrupted([&] { return ::read(opened.get(), buffer.data(), buffer.size()); });
    if (count < 0) return {errno, {}};
    std::string text(buffer.data(), static_cast<std::size_t>(count));
    if (text.size() > textSizeMax) return {EFBIG, {}};
    if (text.ends_with('\n')) text.pop_back();
    return {0, std::move(text)};
  }

  int write(const std::string& file, std::string_view text) override {
    const Descriptor opened = openFileAt(folder.get(), file, O_WRONLY | O_TRUNC);
    if (!opened) return errno;
    const ssize_t count =
        untilUninterrupted([&] { return ::write(opened.get(), text.data(), text.size()); });
    if (count < 0) return errno;
    // The driver takes the bytes of one call as the whole value.
    return count == static_cast<ssize_t>(text.size()) ? 0 : EIO;
  }

 private:
  const Descriptor folder;
};

std::unique_ptr<Folder> openFolder(const std::string& path) {
  Descriptor opened = openFile(path, O_PATH | O_DIRECTORY);
  if (!opened) return nullptr;
  return std::make_unique<OpenFolder>(std::move(opened));
}

/// Returns the device of that class entry, if it is one of ours.
std::optional<Device> identify(const std::string& entry) {
  Device candidate{&macsmc, openFolder(entry)};
  // applesmc registers in the kernel's older way: the entry has no name, the device has all files.
  if (candidate.folder != nullptr && !candidate.folder->has("name")) {
    candidate = {&applesmc, openFolder(entry + "/device")};
  }
  if (candidate.folder == nullptr || !candidate.isPresent()) return std::nullopt;
  return candidate;
}

/// Returns the number after "hwmon".
std::optional<unsigned> entryNumber(std::string_view name) {
  if (!name.starts_with(entryPrefix)) return std::nullopt;
  name.remove_prefix(entryPrefix.size());
  unsigned number = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
  if (error != std::errc() || end != name.data() + name.size()) return std::nullopt;
  return number;
}

}  // namespace

std::optional<Device> findDevice() {
  std::map<unsigned, std::string> entries;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(systemPath(classFolder), error), end;
       !error && entry != end; entry.increment(error)) {
    const auto number = entryNumber(entry->path().filename().native());
    if (number) entries.emplace(*number, entry->path().native());
  }
  for (const auto& [number, path] : entries) {
    if (auto device = identify(path)) return device;
  }
  return std::nullopt;
}

}  // namespace quorvane::hwmon
