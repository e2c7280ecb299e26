#include "Platform/Linux/Channel/Gatekeeper.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <system_error>
#include <vector>

#include "Platform/SystemPath.h"

namespace quorvane::xpc {
namespace {

/// Where the gatekeeper finds the peer's pidfd.
constexpr int pidfdNumber = 3;

/// Installed in bin, beside the sbin or the bin that the guard is in.
std::string programPath() {
  std::error_code error;
  const auto guard = std::filesystem::read_symlink("/proc/self/exe", error);
  return (guard.parent_path() / "../bin/quorvane-codesign").string();
}

/// The gatekeeper's descriptors and signals: it has none of the guard's.
class SpawnSettings {
 public:
  explicit SpawnSettings(int pidfd) {
    posix_spawn_file_actions_init(&files);
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
      posix_spawn_file_actions_addopen(&files, standard, "/dev/null", O_RDWR | O_NOCTTY, 0);
    }
    posix_spawn_file_actions_adddup2(&files, pidfd, pidfdNumber);
    posix_spawnattr_init(&attributes);
    sigset_t signals;
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes, &signals);
    sigfillset(&signals);
    posix_spawnattr_setsigdefault(&attributes, &signals);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  }
  ~SpawnSettings() {
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
  }
  SpawnSettings(const SpawnSettings&) = delete;
  SpawnSettings& operator=(const SpawnSettings&) = delete;

  posix_spawn_file_actions_t files{};
  posix_spawnattr_t attributes{};
};

/// The gatekeeper's process number; nothing without a gatekeeper.
std::optional<pid_t> start(const Peer& peer, const std::string& requirement) {
  if (peer.descriptor() < 0) return std::nullopt;
  const std::string program = programPath();
  std::string name = "quorvane-codesign", command = "admit", text = requirement,
              number = std::to_string(peer.number());
  // All of the environment that it has a use for.
  std::string root = "QUORVANE_ROOT=" + systemPath("");
  char* const arguments[] = {name.data(), command.data(), text.data(), number.data(), nullptr};
  char* const environment[] = {root.data(), nullptr};
  const SpawnSettings settings(peer.descriptor());
  pid_t child = 0;
  const int error = posix_spawn(&child, program.c_str(), &settings.files, &settings.attributes,
                                arguments, environment);
  return error == 0 ? std::optional(child) : std::nullopt;
}

/// Whether the process ends before the deadline.
bool endsBefore(Deadline deadline, pid_t process) {
  using std::chrono::milliseconds;
  const Descriptor ending(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
  const auto left =
      std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now()).count();
  pollfd waited{ending.get(), POLLIN, 0};
  return left > 0 && ending && poll(&waited, 1, static_cast<int>(left)) == 1;
}

}  // namespace

bool admits(const Peer& peer, const std::string& requirement, Deadline deadline) {
  const auto gatekeeper = start(peer, requirement);
  if (!gatekeeper) return false;
  const bool isInTime = endsBefore(deadline, *gatekeeper);
  if (!isInTime) kill(*gatekeeper, SIGKILL);
  siginfo_t end{};
  while (waitid(P_PID, static_cast<id_t>(*gatekeeper), &end, WEXITED) != 0) {
    if (errno != EINTR) return false;
  }
  return isInTime && end.si_code == CLD_EXITED && end.si_status == 0;
}

}  // namespace quorvane::xpc
