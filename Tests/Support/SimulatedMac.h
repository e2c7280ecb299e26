// A whole machine for real processes: a system root with a simulated SMC, a model name, a trusted
// signer and a signed fanctl, and the daemon in it. A command is one of the shell, with the
// machine's programs in its path.
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

/// Of what waitpid(2) says: the exit status, or 128 and the number of the signal that ended it.
inline int exitStatus(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

/// A command that runs beside the test.
class Process {
 public:
  explicit Process(const std::string& command)
      : Process(
            [&command] { execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), nullptr); }) {}
  /// The same with a function of this program.
  explicit Process(const std::function<void()>& run) : child(fork()) {
    if (child != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // nothing outlives a test that is cut short
    run();
    _exit(127);
  }
  /// Kills what still runs.
  ~Process() {
    if (child > 0) stop(SIGKILL);
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  [[nodiscard]] pid_t id() const { return child; }
  void signal(int number) const { kill(child, number); }
  /// Sends a signal, or none for 0, and waits for the end. Its exit status.
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

  /// Runs a command to its end. Its status, a colon and what it wrote: "0:ok 1.0.0\n".
  std::string sh(const std::string& command) const {
    const auto [status, output] = test::run("{ " + command + "; } 2>&1");
    return std::to_string(exitStatus(status)) + ":" + output;
  }
  /// What `fanctl batch` answers to these lines.
  std::string batch(const std::string& lines) const {
    root.write("/batch", lines);
    return sh("fanctl batch <$QUORVANE_ROOT/batch").substr(2);
  }
  /// Starts the daemon and returns once it answers.
  std::unique_ptr<Process> start(const std::string& command = "QuorvaneFanHelper") const {
    auto daemon = std::make_unique<Process>(command);
    test::await("answer of the daemon", [this] { return sh("fanctl ping").front() == '0'; });
    return daemon;
  }

  /// The messages of the audit log, one a line, without timestamps.
  std::string audited() const {
    return test::shell(
        "cut -b 23- <\"$QUORVANE_ROOT/Library/Application Support/Quorvane/fan-audit.log\"");
  }
  /// The keys written to the SMC, with their data: "F0Md=00 F1Md=00 ".
  std::string written() const {
    return test::shell(
        "awk '/^write/ { printf \"%s=%s \", $2, $6 }' $QUORVANE_ROOT/var/lib/quorvane/*.trace");
  }

  /// Takes the hardware, which holds up everybody else, for as long as the result lives.
  simulation::SMCFile takeHardware() const {
    simulation::SMCFile hardware;
    hardware.open(root.path(std::string(simulation::smcPath)), simulation::SMCFile::Access::read);
    return hardware;
  }
  /// The modes of the two fans, as the hardware has them: "01" with fan 1 forced. And when, since
  /// boot, anything was written last.
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
