// Opening files that others may have put in place. A file is first taken as a place in the file
// system only (O_PATH, open(2)), which wakes no terminal, fifo or lease; a regular one is then
// opened for reading. A file system that does not answer still holds the caller up.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Platform/File.h"

namespace quorvane::codesigning {

using Bytes = std::vector<std::uint8_t>;

/// A place without any symbolic link on the way to it or in it.
Descriptor openWithoutLinks(const std::string& path);

struct RegularFile {
  /// Open for reading.
  Descriptor descriptor;
  /// What is wrong, to follow the file's name in a sentence; null when it is open.
  const char* problem = nullptr;
};

/// Opens what lies at a place. An empty descriptor stands for a place that could not be had; errno
/// then still says why.
RegularFile openRegular(const Descriptor& place);

/// Nothing when there are more than maxSize bytes.
std::optional<Bytes> readWhole(const RegularFile& file, std::size_t maxSize);

/// Nothing when it cannot be told.
std::optional<std::uint64_t> sizeOf(int file);

/// Where an open file lies, as an absolute path; empty when it cannot be told.
std::string pathOf(int file);

}  // namespace quorvane::codesigning
