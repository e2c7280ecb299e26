// A whole machine for real processes: a system root with a simulated SMC, a model name, a trusted
// signer and a signed fanctl; and the daemon on it.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "Support/Processes.h"
#include "Support/SigningIdentity.h"
#include "Support/TemporaryRoot.h"

namespace quorvane {

class SimulatedMac {
 public:
  explicit SimulatedMac(int fanCount = 2);

  /// Starts the daemon and returns once it answers a ping.
  void start();
  /// Starts the daemon and returns at once.
  void launch(const std::string& extraArgument = "");
  /// Signals the daemon and yields its exit status.
  int stop(int signal);

  /// The signed client with one argument a word.
  [[nodiscard]] Command fanctl(const std::string& arguments) const;
  /// What `fanctl batch` answers to these lines.
  std::string batch(const std::string& lines) const;
  /// The fans by `--probe`, without the line that counts them.
  [[nodiscard]] std::string probe() const;
  /// The messages of the audit log, one a line, without timestamps.
  [[nodiscard]] std::string audited() const;
  /// The writes that reached the SMC, each as "F0Md=01", in order.
  [[nodiscard]] std::vector<std::string> written() const;

  TemporaryRoot root;
  test::SigningIdentity trusted = test::SigningIdentity::makeRoot();
  std::filesystem::path client;
  std::unique_ptr<Process> daemon;
};

}  // namespace quorvane
