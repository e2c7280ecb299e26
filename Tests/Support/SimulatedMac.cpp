#include "Support/SimulatedMac.h"

#include <csignal>
#include <sstream>
#include <thread>

namespace quorvane {

// Where the build put the programs.
constexpr char helperProgram[] = QUORVANE_HELPER;
constexpr char fanctlProgram[] = QUORVANE_FANCTL;
constexpr char smcsimProgram[] = QUORVANE_SMCSIM;

SimulatedMac::SimulatedMac(int fanCount) : client(root.path("/bin/fanctl")) {
  root.write("/sys/class/dmi/id/product_name", "Macmini9,1\n");
  run({smcsimProgram, "create", "--fans", std::to_string(fanCount)});
  root.write("/var/lib/quorvane/smc.trace", "");
  trusted.installAnchor(root.path(""));
  std::filesystem::create_directory(root.path("/bin"));
  std::filesystem::copy(fanctlProgram, client);
  trusted.issue().signExecutable(client, "com.quorvane.app");
}

void SimulatedMac::launch(const std::string& extraArgument) {
  Command command{helperProgram};
  if (!extraArgument.empty()) command.push_back(extraArgument);
  daemon = std::make_unique<Process>(command);
}

void SimulatedMac::start() {
  launch();
  for (int attempt = 0; attempt < 1000; ++attempt) {
    if (run(fanctl("ping")).status == 0) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

int SimulatedMac::stop(int signal) {
  daemon->signal(signal);
  return daemon->wait();
}

Command SimulatedMac::fanctl(const std::string& arguments) const {
  Command command{client};
  std::istringstream words(arguments);
  for (std::string word; words >> word;) command.push_back(word);
  return command;
}

std::string SimulatedMac::batch(const std::string& lines) const {
  return run(fanctl("batch"), lines).output;
}

std::string SimulatedMac::probe() const {
  const std::string listing = run({helperProgram, "--probe"}).output;
  return listing.substr(listing.find('\n') + 1);
}

std::string SimulatedMac::audited() const {
  std::istringstream log(root.read("/Library/Application Support/Quorvane/fan-audit.log"));
  std::string messages;
  for (std::string line; std::getline(log, line);) messages += line.substr(22) + "\n";
  return messages;
}

std::vector<std::string> SimulatedMac::written() const {
  std::istringstream trace(root.read("/var/lib/quorvane/smc.trace"));
  std::vector<std::string> writes;
  std::string operation, key, size, type, attributes, data, rest;
  while (trace >> operation >> key >> size >> type >> attributes >> data &&
         std::getline(trace, rest)) {
    if (operation == "write") writes.push_back(key + "=" + data);
  }
  return writes;
}

}  // namespace quorvane
