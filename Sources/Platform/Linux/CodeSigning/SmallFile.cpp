#include "Platform/Linux/CodeSigning/SmallFile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "Platform/File.h"

namespace quorvane::xpc {
namespace {

const char* problemOfOpening(int error) {
  if (error == ENOENT) return "does not exist";
  return error == ELOOP ? "is a symbolic link" : "cannot be opened";
}

SmallFile readOpened(int file, std::size_t maxSize) {
  struct stat status {};
  if (fstat(file, &status) != 0 || !S_ISREG(status.st_mode)) return {{}, "is not a regular file"};
  std::vector<std::uint8_t> bytes(maxSize + 1);
  bytes.resize(readAt(file, bytes, 0));
  if (bytes.size() > maxSize) return {{}, "is too large"};
  return {std::move(bytes), nullptr};
}

}  // namespace

SmallFile readSmallFile(const std::string& path, std::size_t maxSize, int openFlags) {
  const Descriptor file = openFile(path, O_RDONLY | openFlags);
  if (!file) return {{}, problemOfOpening(errno)};
  return readOpened(file.get(), maxSize);
}

}  // namespace quorvane::xpc
