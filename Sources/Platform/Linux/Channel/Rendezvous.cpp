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

/// Everybody may connect; admission decides who is served.
constexpr mode_t socketMode = 0666;
constexpr mode_t folderMode = 0755;
/// A user who opens the lock file, even to read, could hold the lock and prevent the guard's start.
constexpr mode_t lockMode = 0600;
/// While the listener's thread is busy, this many clients wait here and further ones in connect(2).
constexpr int backlog = 16;

/// SO_PASSRIGHTS (include/uapi/asm-generic/socket.h); libc does not know it yet.
constexpr int passRights = 83;

/// Why the service cannot be provided; `isServed` if another process serves it.
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
  // Overrides a tighter umask. A folder that exists keeps its mode, which is somebody's decision.
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

/// Takes the lock of the name and holds it until the process ends; a no-op if it is held. The
/// isolated thread owns the descriptor, so that no thread that can hang holds the lock.
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
  // Before anybody can connect: accepted sockets inherit it, so all messages carry credentials.
  const int on = 1;
  if (setsockopt(listening.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0) {
    return obstacle("cannot learn who the clients are of ", name).reason;
  }
  // From Linux 6.16 on, the kernel then refuses the descriptors that a peer sends.
  const int off = 0;
  setsockopt(listening.get(), SOL_SOCKET, passRights, &off, sizeof off);
  // The process that held the lock before is gone, but it left its socket's name.
  unlink(path.c_str());
  if (bind(listening.get(), address->get(), address->size) != 0 ||
      chmod(path.c_str(), socketMode) != 0 || listen(listening.get(), backlog) != 0) {
    return obstacle("cannot listen on ", path).reason;
  }
  socket = std::move(listening);
  return std::nullopt;
}

}  // namespace quorvane::xpc
