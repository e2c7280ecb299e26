#include "Platform/Linux/Channel/Rendezvous.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <system_error>
#include <utility>

#include "Platform/File.h"
#include "Platform/Linux/Channel/Isolation.h"
#include "Platform/Linux/Socket.h"
#include "Platform/NoDestructor.h"
#include "Platform/XPC.h"

namespace quorvane::xpc {
namespace {

/// Everybody may connect: admission alone decides who is served.
constexpr mode_t socketMode = 0666;
constexpr mode_t folderMode = 0755;
/// Whoever can open the lock file, if only for reading, could hold the lock and so keep the daemon
/// from starting.
constexpr mode_t lockMode = 0600;
/// Clients that connect while the listener's thread is busy wait here, and further ones in
/// connect(2).
constexpr int backlog = 16;

/// SO_PASSRIGHTS (include/uapi/asm-generic/socket.h); libc does not know it yet.
constexpr int passRights = 83;

/// Why the service cannot be had; `isServed` when that is because another process serves it.
struct Obstacle {
  std::string reason;
  bool isServed = false;
};

Obstacle obstacle(const char* action, const std::string& object, int error = errno) {
  return {std::string(action).append(object).append(": ").append(std::strerror(error))};
}

std::optional<Obstacle> makeFolder(const std::filesystem::path& folder) {
  std::error_code error;
  const bool isNew = std::filesystem::create_directories(folder, error);
  if (error) return obstacle("cannot create ", folder, error.value());
  // Against a tighter umask. A folder that was there is somebody's decision and stays as it is.
  if (isNew && chmod(folder.c_str(), folderMode) != 0) {
    return obstacle("cannot let clients into ", folder);
  }
  return std::nullopt;
}

std::optional<Obstacle> takeLock(const std::string& name, Descriptor& lock) {
  const std::string path = machServiceSocketPath(name) + ".lock";
  if (auto failure = makeFolder(std::filesystem::path(path).parent_path())) return failure;
  lock = openFile(path, O_RDWR | O_CREAT | O_NOFOLLOW, lockMode);
  if (!lock) return obstacle("cannot open ", path);
  if (flock(lock.get(), LOCK_EX | LOCK_NB) == 0) return std::nullopt;
  if (errno == EWOULDBLOCK) return Obstacle{"another process serves " + name, /*isServed=*/true};
  return obstacle("cannot lock ", path);
}

/// Holds the lock of the name until the process ends; again does nothing. The descriptor belongs to
/// the isolated thread: nothing that could get stuck holds the lock.
std::optional<Obstacle> holdLock(const std::string& name) {
  static const NoDestructor<std::map<std::string, Descriptor>> held;
  if (held->contains(name)) return std::nullopt;
  std::optional<Obstacle> found;
  const bool hasRun = runIsolated([&] {
    Descriptor lock;
    found = takeLock(name, lock);
    if (!found) held->emplace(name, std::move(lock));
  });
  return hasRun ? found : obstacle("cannot hold the lock of ", name);
}

}  // namespace

std::optional<std::string> claimMachService(const std::string& name) {
  const std::optional<Obstacle> found = holdLock(name);
  if (!found || !found->isServed) return std::nullopt;
  return found->reason;
}

std::optional<std::string> openRendezvous(const std::string& name, Descriptor& socket) {
  const std::string path = machServiceSocketPath(name);
  const auto address = socketAddress(path);
  if (!address) return "the path is too long for a socket: " + path;
  if (const auto found = holdLock(name)) return found->reason;

  Descriptor listening(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  if (!listening) return obstacle("cannot make a socket for ", name).reason;
  // Before anybody can connect: an accepted socket inherits it, so that no message comes without
  // its sender's credentials.
  const int on = 1;
  if (setsockopt(listening.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0) {
    return obstacle("cannot learn who the clients are of ", name).reason;
  }
  // Where the kernel can (from Linux 6.16 on), it refuses descriptors that a peer sends along.
  const int off = 0;
  setsockopt(listening.get(), SOL_SOCKET, passRights, &off, sizeof off);
  // The process that held the lock before is gone. It left the name of its socket.
  unlink(path.c_str());
  if (bind(listening.get(), address->get(), address->size) != 0 ||
      chmod(path.c_str(), socketMode) != 0 || listen(listening.get(), backlog) != 0) {
    return obstacle("cannot listen on ", path).reason;
  }
  socket = std::move(listening);
  return std::nullopt;
}

}  // namespace quorvane::xpc
