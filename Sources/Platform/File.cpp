#include "Platform/File.h"

#include <fcntl.h>
#include <unistd.h>

namespace quorvane {
Descriptor::~Descriptor() {
  if (value >= 0) close(value);
}

Descriptor openFile(const std::string& path, int flags, mode_t mode) {
  return openFileAt(AT_FDCWD, path, flags, mode);
}

Descriptor openFileAt(int folder, const std::string& path, int flags, mode_t mode) {
  return Descriptor(untilUninterrupted([&] {
    return openat(folder, path.c_str(), flags | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, mode);
  }));
}

std::size_t readAt(int file, std::span<std::uint8_t> bytes, off_t offset) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const std::span<std::uint8_t> rest = bytes.subspan(done);
    const ssize_t count = untilUninterrupted(
        [&] { return pread(file, rest.data(), rest.size(), offset + static_cast<off_t>(done)); });
    if (count <= 0) break;
    done += static_cast<std::size_t>(count);
  }
  return done;
}

bool writeAll(int file, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count =
        untilUninterrupted([&] { return write(file, bytes.data(), bytes.size()); });
    if (count <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

}  // namespace quorvane
