// A whole machine for real processes: a system root with a simulated SMC, a model name, a trusted
// signer and a signed fanctl; and the daemon on it. Commands are the shell's, with the machine's
// programs in the path.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

#include "Platform/Linux/Drivers/SMCFile.h"
#include "Support/SigningIdentity.h"
#include "Support/TemporaryRoot.h"

namespace quorvane {

/// A command that runs beside the test.
class Process {
 public:
  explicit Process(const std::string& command);
  /// Kills what still runs.
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  void signal(int number) const;
  [[nodiscard]] bool isRunning() const;
  /// Sends a signal, or none for 0, and waits for the end. The exit status, or 128 and the number
  /// of the signal that ended it.
  int stop(int number);

 private:
  pid_t child;
};

class SimulatedMac {
 public:
  SimulatedMac();

  /// Runs a command to its end. Its status, a colon and what it wrote: "0:ok 1.0.0\n".
  std::string sh(const std::string& command) const;
  /// What `fanctl batch` answers to these lines.
  std::string batch(const std::string& lines) const;
  /// Copies one of our programs to where it can be signed as a companion, and signs it.
  void install(const std::string& program) const;
  /// Starts the daemon and returns once it answers, or has ended.
  std::unique_ptr<Process> start(const std::string& command = "QuorvaneFanHelper") const;
  /// The messages of the audit log, one a line, without timestamps.
  std::string audited() const;
  /// The keys written to the SMC, with their data: "F0Md=00 F1Md=00 ".
  std::string written() const;
  /// Returns once as many writes are in the trace.
  void waitForWrites(std::ptrdiff_t count) const;
  /// The modes of the two fans, as the hardware has them: "01" with fan 1 forced. And when, since
  /// boot, anything was written last.
  std::string modes(std::chrono::nanoseconds* lastWrite = nullptr) const;
  /// Waits until the modes change; how long after the last write before that they did, whenever it
  /// was seen.
  double secondsToRestore() const;

  /// Takes the hardware for as long as the file lives, which holds up everybody else.
  int take(simulation::SMCFile& file) const;

  TemporaryRoot root;
  test::SigningIdentity trusted = test::SigningIdentity::makeRoot();
};

}  // namespace quorvane
