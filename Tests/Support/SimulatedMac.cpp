#include "Support/SimulatedMac.h"

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <sstream>
#include <thread>

namespace quorvane {
namespace {

int exitStatus(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

Process::Process(const std::string& command) : child(fork()) {
  if (child != 0) return;
  execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), nullptr);
  _exit(127);
}

Process::~Process() {
  if (child <= 0) return;
  signal(SIGKILL);
  wait();
}

void Process::signal(int number) const {
  kill(child, number);
}

int Process::wait() {
  int status = 0;
  waitpid(child, &status, 0);
  child = -1;
  return exitStatus(status);
}

SimulatedMac::SimulatedMac() {
  setenv("PATH", (root.path("/bin:") + PROGRAMS_FOLDER ":" + getenv("PATH")).c_str(), 1);
  root.write("/sys/class/dmi/id/product_name", "Macmini9,1\n");
  sh("smcsim create");
  root.write("/var/lib/quorvane/smc.trace", "");
  trusted.installAnchor(root.path(""));
  std::filesystem::copy(PROGRAMS_FOLDER "/fanctl", root.prepare("/bin/fanctl"));
  trusted.issue().signExecutable(root.path("/bin/fanctl"), "com.quorvane.app");
}

std::string SimulatedMac::sh(const std::string& command) const {
  std::FILE* pipe = popen(("{ " + command + "; } 2>&1").c_str(), "r");
  std::string output;
  for (int c; (c = std::getc(pipe)) != EOF;) output += static_cast<char>(c);
  return std::to_string(exitStatus(pclose(pipe))) + ":" + output;
}

std::string SimulatedMac::batch(const std::string& lines) const {
  root.write("/batch", lines);
  return sh("fanctl batch <$QUORVANE_ROOT/batch").substr(2);
}

std::unique_ptr<Process> SimulatedMac::start(const std::string& command) const {
  auto daemon = std::make_unique<Process>(command);
  for (int i = 0; sh("fanctl ping").front() != '0' && i < 500; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return daemon;
}

std::string SimulatedMac::audited() const {
  std::istringstream log(root.read("/Library/Application Support/Quorvane/fan-audit.log"));
  std::string messages;
  for (std::string line; std::getline(log, line);) messages += line.substr(22) + "\n";
  return messages;
}

std::string SimulatedMac::written() const {
  std::istringstream trace(root.read("/var/lib/quorvane/smc.trace"));
  std::string writes, operation, key, size, type, attributes, data, rest;
  while (trace >> operation >> key >> size >> type >> attributes >> data &&
         std::getline(trace, rest)) {
    if (operation == "write") writes += key + "=" + data + " ";
  }
  return writes;
}

}  // namespace quorvane
