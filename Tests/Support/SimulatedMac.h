// A whole machine for real processes: a system root with a simulated SMC, a model name, a trusted
// signer and a signed fanctl; and the daemon on it. Commands are the shell's, with the machine's
// programs in the path.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

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
  /// The exit status, or 128 and the number of the signal that ended it.
  int wait();

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
  /// Starts the daemon and returns once it answers.
  std::unique_ptr<Process> start(const std::string& command = "QuorvaneFanHelper") const;
  /// The messages of the audit log, one a line, without timestamps.
  std::string audited() const;
  /// The keys written to the SMC, with their data: "F0Md=00 F1Md=00 ".
  std::string written() const;

  TemporaryRoot root;
  test::SigningIdentity trusted = test::SigningIdentity::makeRoot();
};

}  // namespace quorvane
