// Files by their descriptors: the owner of one, and the calls that every use of one shares. The
// same code on both systems; callable from any thread.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>

namespace quorvane {

/// A file descriptor and the duty to close it. Closing can wait for what the file is: the owner
/// chooses the thread.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int descriptor) : value(descriptor) {}
  Descriptor(Descriptor&& other) noexcept : value(std::exchange(other.value, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(value, other.value);
    return *this;
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor();

  [[nodiscard]] int get() const { return value; }
  explicit operator bool() const { return value >= 0; }

 private:
  int value = -1;
};

/// open(2), repeated when a signal interrupts it. Without a descriptor, errno says why. The file is
/// not inherited by other programs, a terminal does not become ours, and a fifo or a lease does not
/// make the call wait (O_CLOEXEC, O_NOCTTY, O_NONBLOCK). `folder` is where a relative path begins.
Descriptor openFile(const std::string& path, int flags, mode_t mode = 0);
Descriptor openFileAt(int folder, const std::string& path, int flags, mode_t mode = 0);

/// Fills the bytes from `offset` on. Yields how many there were: fewer only at the end of the file
/// or on an error.
std::size_t readAt(int file, std::span<std::uint8_t> bytes, off_t offset);

/// Writes all bytes at the file's position. False with the reason in errno when only some, or none,
/// could be written.
bool writeAll(int file, std::string_view bytes);

}  // namespace quorvane
