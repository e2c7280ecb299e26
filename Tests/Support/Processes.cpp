#include "Support/Processes.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

namespace quorvane {
namespace {

int unnamedFile(const std::string& contents) {
  const int file = memfd_create("test", MFD_CLOEXEC);
  if (file < 0 || write(file, contents.data(), contents.size()) < 0)
    throw std::runtime_error("memfd");
  lseek(file, 0, SEEK_SET);
  return file;
}

std::string contentsOf(int file) {
  std::string text(static_cast<std::size_t>(lseek(file, 0, SEEK_END)), '\0');
  const ssize_t count = pread(file, text.data(), text.size(), 0);
  text.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
  return text;
}

}  // namespace

Process::Process(const Command& command, const std::string& input)
    : outputFile(unnamedFile("")), errorFile(unnamedFile("")) {
  std::vector<char*> arguments;
  for (const std::string& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  const int inputFile = unnamedFile(input);
  child = fork();
  if (child == 0) {
    dup2(inputFile, STDIN_FILENO);
    dup2(outputFile, STDOUT_FILENO);
    dup2(errorFile, STDERR_FILENO);
    execv(arguments[0], arguments.data());
    _exit(127);
  }
  close(inputFile);
}

Process::~Process() {
  if (child > 0) {
    signal(SIGKILL);
    wait();
  }
  close(outputFile);
  close(errorFile);
}

void Process::signal(int number) const {
  kill(child, number);
}

int Process::wait() {
  int status = 0;
  waitpid(child, &status, 0);
  child = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Both files are shared with the child, position included: it writes where it left off.
std::string Process::output() const {
  return contentsOf(outputFile);
}
std::string Process::errors() const {
  return contentsOf(errorFile);
}

Finished run(const Command& command, const std::string& input) {
  Process process(command, input);
  const int status = process.wait();
  return {status, process.output(), process.errors()};
}

}  // namespace quorvane
