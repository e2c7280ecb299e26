#include "Platform/Linux/CodeSigning/PeerExecutable.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <string>

#include "Platform/Linux/CodeSigning/RegularFile.h"

namespace quorvane::codesigning {
namespace {

bool isSameFile(int folder, const char* path, const char* other) {
  struct stat status {};
  struct stat otherStatus {};
  return fstatat(folder, path, &status, 0) == 0 && stat(other, &otherStatus) == 0 &&
         status.st_dev == otherStatus.st_dev && status.st_ino == otherStatus.st_ino;
}

}  // namespace

Descriptor openPeerExecutable(pid_t pid) {
  const Descriptor folder = openFile("/proc/" + std::to_string(pid), O_PATH | O_DIRECTORY);
  const Descriptor executable = openFileAt(folder.get(), "exe", O_PATH);
  // After the opening: a process that is in our namespaces now has never been in others.
  const bool isGenuine = isSameFile(folder.get(), "ns/user", "/proc/self/ns/user") &&
                         isSameFile(folder.get(), "ns/pid", "/proc/self/ns/pid");
  return isGenuine ? openRegular(executable).descriptor : Descriptor();
}

}  // namespace quorvane::codesigning
