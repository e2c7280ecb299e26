// A simulated machine for real processes: a system root with a simulated SMC, a model name, a
// trusted signer, a signed fanctl and, once started, the daemon. Commands are shell commands, with
// the machine's programs in the path.
#pragma once

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <memory>

#include "Platform/Linux/Drivers/SMCFile.h"
#include "Support/Await.h"
#include "Support/SigningIdentity.h"
#include "Support/TemporaryRoot.h"

namespace quorvane {

/// Returns the exit status in a status of waitpid(2), or 128 plus the number of the fatal signal.
inline int exitStatus(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

/// A child process of the test.
class Process {
 public:
  explicit Process(const std::string& command)
      : Process(
            [&command] { execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), nullptr); }) {}
  /// Runs a function of this program in the child process.
  explicit Process(const std::function<void()>& run) : child(fork()) {
    if (child != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // no process outlives a killed test
    run();
    _exit(127);
  }
  /// Kills the process if it still runs.
  ~Process() {
    if (child > 0) stop(SIGKILL);
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  [[nodiscard]] pid_t id() const { return child; }
  void signal(int number) const { kill(child, number); }
  /// Sends a signal, or none for 0, and waits for the end. Returns the exit status.
  int stop(int number) {
    signal(number);
    int status = 0;
    waitpid(child, &status, 0);
    child = -1;
    return exitStatus(status);
  }

 private:
  pid_t child;
};

class SimulatedMac {
 public:
  SimulatedMac() {
    setenv("PATH", (root.path("/bin:") + PROGRAMS_FOLDER ":" + getenv("PATH")).c_str(), 1);
    root.write("/sys/class/dmi/id/product_name", "Macmini9,1\n");
    sh("smcsim create");
    root.write("/var/lib/quorvane/smc.trace", "");
    trusted.installAnchor(root.path(""));
    const std::string companion = root.prepare("/bin/fanctl");
    std::filesystem::copy(PROGRAMS_FOLDER "/fanctl", companion);
    trusted.issue().signExecutable(companion, "com.quorvane.app");
  }

  /// Runs a command. Returns its exit status, a colon and its output: "0:ok 1.0.0\n".
  std::string sh(const std::string& command) const {
    const auto [status, output] = test::run("{ " + command + "; } 2>&1");
    return std::to_string(exitStatus(status)) + ":" + output;
  }
  /// Returns the output of `fanctl batch` for these lines.
  std::string batch(const std::string& lines) const {
    root.write("/batch", lines);
    return sh("fanctl batch <$QUORVANE_ROOT/batch").substr(2);
  }
  /// Starts the daemon, and returns after its first reply.
  std::unique_ptr<Process> start(const std::string& command = "QuorvaneFanHelper") const {
    auto daemon = std::make_unique<Process>(command);
    test::await("answer of the daemon", [this] { return sh("fanctl ping").front() == '0'; });
    return daemon;
  }

  /// The messages of the audit log, one per line, without timestamps.
  std::string audited() const {
    return test::shell(
        "cut -b 23- <\"$QUORVANE_ROOT/Library/Application Support/Quorvane/fan-audit.log\"");
  }
  /// The writes to the SMC, each a key with its data: "F0Md=00 F1Md=00 ".
  std::string written() const {
    return test::shell(
        "awk '/^write/ { printf \"%s=%s \", $2, $6 }' $QUORVANE_ROOT/var/lib/quorvane/*.trace");
  }

  /// Locks the hardware while the result lives. All other users of the hardware block.
  simulation::SMCFile takeHardware() const {
    simulation::SMCFile hardware;
    hardware.open(root.path(std::string(simulation::smcPath)), simulation::SMCFile::Access::read);
    return hardware;
  }
  /// The modes of the two fans in the hardware: "01" with fan 1 forced. Sets `lastWrite` to the
  /// time of the hardware's last change, since boot.
  std::string modes(std::chrono::nanoseconds* lastWrite = nullptr) const {
    simulation::SMCFile hardware = takeHardware();
    if (lastWrite != nullptr) *lastWrite = hardware.machine.changedAt;
    const auto mode = [&hardware](unsigned fan) {
      return std::to_string(hardware.machine.find(simulation::fanKey(fan, "Md"))->data[0]);
    };
    return mode(0) + mode(1);
  }

  TemporaryRoot root;
  test::SigningIdentity trusted = test::SigningIdentity::makeRoot();
};

}  // namespace quorvane
