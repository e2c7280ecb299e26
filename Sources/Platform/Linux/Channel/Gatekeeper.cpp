#include "Platform/Linux/Channel/Gatekeeper.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <system_error>

#include "Platform/Linux/Channel/Isolation.h"
#include "Platform/SystemPath.h"

namespace quorvane::xpc {
namespace {

/// Returns the gatekeeper's path: in bin, beside the guard's sbin or bin; empty if that is unknown.
std::string programPath() {
  std::error_code error;
  const auto guard = std::filesystem::read_symlink("/proc/self/exe", error);
  return error ? "" : (guard.parent_path() / "../bin/quorvane-codesign").string();
}

/// Starts a gatekeeper with /dev/null as its standard descriptors, without other descriptors, and
/// with no signal blocked or ignored. Returns its process number, or 0 on failure.
pid_t spawn(const char* program, char* const* arguments, char* const* environment) {
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    posix_spawn_file_actions_addopen(&files, standard, "/dev/null", O_RDWR | O_NOCTTY, 0);
  }
  // Also the descriptors that the guard inherited.
  posix_spawn_file_actions_addclosefrom_np(&files, STDERR_FILENO + 1);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t signals;
  sigemptyset(&signals);
  posix_spawnattr_setsigmask(&attributes, &signals);
  sigfillset(&signals);
  posix_spawnattr_setsigdefault(&attributes, &signals);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  pid_t child = 0;
  const bool isStarted =
      posix_spawn(&child, program, &files, &attributes, arguments, environment) == 0;
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&files);
  return isStarted ? child : 0;
}

/// Returns the process number of a new gatekeeper, or 0 on failure.
pid_t startGatekeeper(const Peer& peer, std::string requirement) {
  // The number is still the peer's: the connection holds a pidfd, and checks that the peer is alive
  // when it echoes the nonce.
  std::string program = programPath(), name = "quorvane-codesign", command = "admit",
              number = std::to_string(peer.number()), guard = std::to_string(getpid()),
              // The only environment variable that it uses.
      root = "QUORVANE_ROOT=" + systemPath("");
  char* const arguments[] = {name.data(),   command.data(), requirement.data(),
                             number.data(), guard.data(),   nullptr};
  char* const environment[] = {root.data(), nullptr};
  pid_t child = 0;
  const bool hasRun = runIsolated([&] { child = spawn(program.c_str(), arguments, environment); });
  return hasRun ? child : 0;
}

bool endsBefore(Deadline deadline, pid_t child) {
  using std::chrono::milliseconds;
  const Descriptor process = openPidfd(child);
  const auto left = std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now());
  return process && left > milliseconds(0) && waitForEnd(process, left);
}

}  // namespace

bool admits(const Peer& peer, const std::string& requirement, Deadline deadline) {
  const pid_t gatekeeper = startGatekeeper(peer, requirement);
  if (gatekeeper == 0) return false;
  const bool isInTime = endsBefore(deadline, gatekeeper);
  if (!isInTime) kill(gatekeeper, SIGKILL);
  siginfo_t end{};
  const int waited = untilUninterrupted(
      [&] { return waitid(P_PID, static_cast<id_t>(gatekeeper), &end, WEXITED); });
  return waited == 0 && isInTime && end.si_code == CLD_EXITED && end.si_status == 0;
}

}  // namespace quorvane::xpc
