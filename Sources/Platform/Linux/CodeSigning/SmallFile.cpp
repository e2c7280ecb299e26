#include "Platform/Linux/CodeSigning/SmallFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

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

std::size_t readAt(int file, std::span<std::uint8_t> bytes, off_t offset) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const std::span<std::uint8_t> rest = bytes.subspan(done);
    const ssize_t count = pread(file, rest.data(), rest.size(), offset + static_cast<off_t>(done));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    done += static_cast<std::size_t>(count);
  }
  return done;
}

SmallFile readSmallFile(const std::string& path, std::size_t maxSize, int openFlags) {
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | openFlags);
  if (file < 0) return {{}, problemOfOpening(errno)};
  SmallFile result = readOpened(file, maxSize);
  close(file);
  return result;
}

}  // namespace quorvane::xpc
