#include "Platform/Linux/Channel/Peer.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>
#include <utility>

namespace quorvane::xpc {
namespace {

bool isSameFile(int folder, const char* path, const char* other) {
  struct stat status {};
  struct stat otherStatus {};
  return fstatat(folder, path, &status, 0) == 0 && stat(other, &otherStatus) == 0 &&
         status.st_dev == otherStatus.st_dev && status.st_ino == otherStatus.st_ino;
}

}  // namespace

Peer::Peer(int socket) {
  ucred credentials{};
  socklen_t size = sizeof credentials;
  if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) return;
  pid = credentials.pid;
  // Not by glibc's name for it: 2.36 declares that without C linkage.
  process = Descriptor(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));  // close-on-exec
}

Descriptor Peer::openExecutable() const {
  const std::string path = "/proc/" + std::to_string(pid);
  const Descriptor folder = openFile(path, O_PATH | O_DIRECTORY);
  Descriptor executable = openFileAt(folder.get(), "exe", O_RDONLY);
  // After the opening: a process that is in our namespaces then has never been in others.
  const bool isGenuine = isSameFile(folder.get(), "ns/user", "/proc/self/ns/user") &&
                         isSameFile(folder.get(), "ns/pid", "/proc/self/ns/pid") &&
                         isSender(pid);  // and so the folder is this process's
  return isGenuine ? std::move(executable) : Descriptor();
}

bool Peer::isSender(pid_t number) const {
  if (number != pid || !process) return false;
  // A pidfd becomes readable when its process ends (pidfd_open(2)).
  pollfd ending{process.get(), POLLIN, 0};
  return poll(&ending, 1, 0) == 0;
}

}  // namespace quorvane::xpc
