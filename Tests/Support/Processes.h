// Real processes for tests: one that runs to its end with its output captured, and one that runs
// beside the test.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace quorvane {

/// The program and its arguments.
using Command = std::vector<std::string>;

class Process {
 public:
  /// Starts the command with `input` as its whole standard input. Its output goes to unnamed files.
  explicit Process(const Command& command, const std::string& input = "");
  /// Kills what still runs.
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  [[nodiscard]] pid_t pid() const { return child; }
  void signal(int number) const;
  /// The exit status, or 128 and the number of the signal that ended it.
  int wait();
  [[nodiscard]] std::string output() const;
  [[nodiscard]] std::string errors() const;

 private:
  pid_t child = -1;
  int outputFile, errorFile;
};

struct Finished {
  int status;
  std::string output, errors;
};
Finished run(const Command& command, const std::string& input = "");

}  // namespace quorvane
