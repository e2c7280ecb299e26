// Opens files that others may have created. First it opens only the place in the file system
// (O_PATH, open(2)), which wakes no terminal, fifo or lease; then it opens a regular file for
// reading. A file system that does not respond still blocks the caller.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Platform/File.h"

namespace quorvane::codesigning {

using Bytes = std::vector<std::uint8_t>;

/// Opens a place. Fails if any part of the path, its end included, is a symbolic link.
Descriptor openWithoutLinks(const std::string& path);

struct RegularFile {
  /// Open for reading.
  Descriptor descriptor;
  /// The problem, as text that follows the file's name in a sentence; null if the file is open.
  const char* problem = nullptr;
};

/// Opens the file at a place. An empty descriptor means a place that could not be opened; errno
/// must still have the reason.
RegularFile openRegular(const Descriptor& place);

/// Returns nothing if there are more than maxSize bytes.
std::optional<Bytes> readWhole(const RegularFile& file, std::size_t maxSize);

/// Returns nothing if the size is unknown.
std::optional<std::uint64_t> sizeOf(int file);

/// Returns the absolute path of an open file; empty if it is unknown.
std::string pathOf(int file);

}  // namespace quorvane::codesigning
