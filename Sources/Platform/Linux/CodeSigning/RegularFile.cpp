#include "Platform/Linux/CodeSigning/RegularFile.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>

namespace quorvane::codesigning {
namespace {

std::string linkTo(int file) {
  return "/proc/self/fd/" + std::to_string(file);
}

RegularFile notOpened(int error) {
  if (error == ENOENT) return {{}, "does not exist"};
  return {{}, error == ELOOP ? "is a symbolic link, or behind one" : "cannot be opened"};
}

}  // namespace

Descriptor openWithoutLinks(const std::string& path) {
  open_how how{};
  how.flags = O_PATH | O_CLOEXEC;
  how.resolve = RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
  return Descriptor(
      static_cast<int>(syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how)));
}

RegularFile openRegular(const Descriptor& place) {
  if (!place) return notOpened(errno);
  struct stat status {};
  if (fstat(place.get(), &status) != 0) return notOpened(errno);
  if (!S_ISREG(status.st_mode)) return {{}, "is not a regular file"};
  Descriptor file = openFile(linkTo(place.get()), O_RDONLY);
  if (!file) return notOpened(errno);
  return {std::move(file)};
}

std::optional<Bytes> readWhole(const RegularFile& file, std::size_t maxSize) {
  Bytes bytes(maxSize + 1);
  bytes.resize(readAt(file.descriptor.get(), bytes, 0));
  if (bytes.size() > maxSize) return std::nullopt;
  return bytes;
}

std::optional<std::uint64_t> sizeOf(int file) {
  struct stat status {};
  if (fstat(file, &status) != 0) return std::nullopt;
  return static_cast<std::uint64_t>(status.st_size);
}

std::string pathOf(int file) {
  std::error_code error;
  const std::filesystem::path path = std::filesystem::read_symlink(linkTo(file), error);
  return !error && path.is_absolute() ? path.string() : "";
}

}  // namespace quorvane::codesigning
