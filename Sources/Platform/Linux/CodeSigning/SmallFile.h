// Reading files that others may have written or put in place. Callable from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace quorvane::xpc {

struct SmallFile {
  std::vector<std::uint8_t> bytes;
  /// What is wrong with the file, to follow its name in a sentence; null when it was read whole.
  const char* problem = nullptr;
};

/// A regular file whole, of at most maxSize bytes. Never waits for another process, as a fifo or a
/// lease on the file would otherwise make it do. `openFlags` may add O_NOFOLLOW.
SmallFile readSmallFile(const std::string& path, std::size_t maxSize, int openFlags = 0);

}  // namespace quorvane::xpc
