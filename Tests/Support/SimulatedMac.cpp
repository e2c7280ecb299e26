#include "Support/SimulatedMac.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <sstream>
#include <thread>

namespace quorvane {
namespace {

using namespace std::chrono_literals;

int exitStatus(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

Process::Process(const std::string& command) : child(fork()) {
  if (child != 0) return;
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // nothing outlives a test that is cut short
  execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), nullptr);
  _exit(127);
}

Process::~Process() {
  if (child > 0) stop(SIGKILL);
}

void Process::signal(int number) const {
  kill(child, number);
}

bool Process::isRunning() const {
  siginfo_t ending{};
  const id_t id = static_cast<id_t>(child);
  return waitid(P_PID, id, &ending, WEXITED | WNOHANG | WNOWAIT) == 0 && ending.si_pid == 0;
}

int Process::stop(int number) {
  signal(number);
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
  install("fanctl");
}

void SimulatedMac::install(const std::string& program) const {
  const std::string copy = root.prepare("/bin/" + program);
  std::filesystem::copy(PROGRAMS_FOLDER "/" + program, copy);
  trusted.issue().signExecutable(copy, "com.quorvane.app");
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
  while (daemon->isRunning() && sh("fanctl ping").front() != '0') {
    std::this_thread::sleep_for(5ms);
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

void SimulatedMac::waitForWrites(std::ptrdiff_t count) const {
  while (std::ranges::count(written(), ' ') < count) std::this_thread::sleep_for(5ms);
}

int SimulatedMac::take(simulation::SMCFile& file) const {
  return file.open(root.path(std::string(simulation::smcPath)), simulation::SMCFile::Access::read);
}

std::string SimulatedMac::modes(std::chrono::nanoseconds* lastWrite) const {
  simulation::SMCFile file;
  take(file);
  if (lastWrite != nullptr) *lastWrite = file.machine.changedAt;
  const auto mode = [&](unsigned fan) {
    return std::to_string(file.machine.find(simulation::fanKey(fan, "Md"))->data[0]);
  };
  return mode(0) + mode(1);
}

double SimulatedMac::secondsToRestore() const {
  std::chrono::nanoseconds before{}, last{};
  for (const std::string forced = modes(); modes(&last) == forced; before = last) {
    std::this_thread::sleep_for(20ms);
  }
  return std::chrono::duration<double>(last - before).count();
}

}  // namespace quorvane
