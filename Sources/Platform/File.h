// The owner of a file descriptor, and calls on files. The same code on both systems; callable from
// any thread.
#pragma once

#include <sys/types.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>

namespace quorvane {

/// Repeats a system call while a signal interrupts it. Returns its result.
template <class Call>
auto untilUninterrupted(const Call& call) {
  for (;;) {
    const auto result = call();
    if (result >= 0 || errno != EINTR) return result;
  }
}

/// Owns a file descriptor and closes it. Closing can block, so the owner chooses the thread.
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

/// Opens a file as open(2) does; retries after a signal. On failure the result is empty and errno
/// has the reason. Other programs do not inherit the descriptor, a terminal does not become ours,
/// and a fifo or a lease does not block (O_CLOEXEC, O_NOCTTY, O_NONBLOCK). A relative path starts
/// at `folder`.
Descriptor openFile(const std::string& path, int flags, mode_t mode = 0);
Descriptor openFileAt(int folder, const std::string& path, int flags, mode_t mode = 0);

/// Reads from `offset` until the span is full. Returns the number of bytes read; it is smaller than
/// the span only at the end of the file or on an error.
std::size_t readAt(int file, std::span<std::uint8_t> bytes, off_t offset);

/// Writes all bytes at the file's position. Returns false with the reason in errno if it could
/// write only some or none.
bool writeAll(int file, std::string_view bytes);

}  // namespace quorvane
