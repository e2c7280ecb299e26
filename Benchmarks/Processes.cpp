#include "Processes.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "Platform/Linux/Channel/Messages.h"
#include "Platform/Linux/Socket.h"

namespace quorvane::bench {

void fail(const std::string& why) {
  std::fprintf(stderr, "\nbench: %s (%s)\n", why.c_str(), std::strerror(errno));
  std::exit(EXIT_FAILURE);
}

double microsecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

bool runOn(int processor) {
  cpu_set_t processors;
  CPU_ZERO(&processors);
  CPU_SET(static_cast<std::size_t>(processor), &processors);
  return sched_setaffinity(0, sizeof processors, &processors) == 0;
}

std::filesystem::directory_iterator tasksOf(pid_t pid) {
  return std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task");
}

double processorMicroseconds(pid_t pid) {
  double sum = 0;
  for (const auto& task : tasksOf(pid)) {
    double nanoseconds = 0;
    std::ifstream(task.path() / "schedstat") >> nanoseconds;
    sum += nanoseconds / 1000;
  }
  return sum;
}

std::string programsFolder() {
  return std::filesystem::read_symlink("/proc/self/exe").parent_path();
}

Program::Program(const std::vector<std::string>& command, const std::string& root,
                 const std::vector<int>& inherited) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) fail("no pipe");
  std::vector<char*> arguments;
  for (const std::string& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  child = fork();
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    setenv("QUORVANE_ROOT", root.c_str(), 1);
    dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
    dup2(ends[1], STDERR_FILENO);
    for (const int descriptor : inherited) fcntl(descriptor, F_SETFD, 0);
    execvp(arguments.front(), arguments.data());
    _exit(127);
  }
  close(ends[1]);
  standardError = Descriptor(ends[0]);
}

Program::~Program() {
  if (child > 0) stop(SIGKILL);
}

void Program::waitForLine(std::string_view text) {
  for (;;) {
    const std::size_t end = unread.find('\n');
    if (end != std::string::npos) {
      const std::string line = unread.substr(0, end);
      unread.erase(0, end + 1);
      if (line.find(text) != std::string::npos) return;
      continue;
    }
    std::array<char, 512> bytes{};
    const ssize_t count = read(standardError.get(), bytes.data(), bytes.size());
    if (count <= 0) fail("a program ended before it said: " + std::string(text));
    unread.append(bytes.data(), static_cast<std::size_t>(count));
  }
}

int Program::wait() {
  int status = 0;
  waitpid(child, &status, 0);
  child = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int Program::stop(int signal) {
  kill(child, signal);
  return wait();
}

Channel Channel::enter(const std::string& root) {
  const auto address =
      socketAddress(root + "/run/quorvane/" + std::string(FanControlConstants::helperMachService));
  Descriptor connected(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  if (!address || ::connect(connected.get(), address->get(), address->size) != 0) {
    fail("cannot connect");
  }
  Channel channel(std::move(connected));
  if (!channel.receive()) fail("not admitted");
  const auto nonce = xpc::decodeNonce(xpc::MessageKind::challenge, {channel.buffer, channel.size});
  if (!nonce) fail("no challenge");
  channel.send(xpc::encodeNonce(xpc::MessageKind::response, *nonce));
  channel.call(pingRequest());
  return channel;
}

void Channel::call(std::string_view request) {
  send(request);
  if (!receive()) fail("no reply");
}

void Channel::send(std::string_view request) const {
  if (::send(descriptor(), request.data(), request.size(), MSG_NOSIGNAL) < 0) fail("cut off");
}

bool Channel::receive(bool waiting) {
  const ssize_t count = recv(descriptor(), buffer, sizeof buffer, waiting ? 0 : MSG_DONTWAIT);
  if (count < 0 && !waiting && errno == EAGAIN) return false;
  if (count <= 0) fail("cut off");
  size = static_cast<std::size_t>(count);
  return true;
}

std::string pingRequest() {
  return xpc::encodeRequest(1, xpc::PingRequest());
}

std::string statusRequest() {
  return xpc::encodeRequest(1, xpc::StatusRequest());
}

std::string writeRequest(const std::string& key, std::int64_t value) {
  return xpc::encodeRequest(1, xpc::WriteFanKeyRequest{key, value, false});
}

Machine::Machine(std::string folder, const std::string& anchors, int fans)
    : root(std::move(folder)) {
  const std::string etc = root + "/etc/quorvane";
  const std::string model = root + "/sys/class/dmi/id";
  std::filesystem::create_directories(etc);
  std::filesystem::create_directories(model);
  std::filesystem::copy(anchors, etc + "/anchors");
  std::ofstream(model + "/product_name") << "Macmini9,1\n";
  Program smcsim({programsFolder() + "/smcsim", "create", "--fans", std::to_string(fans)}, root);
  if (smcsim.wait() != 0) fail("no simulated SMC");
}

Helper::Helper(const std::string& program, const Machine& machine)
    : Program({programsFolder() + "/" + program}, machine.root) {
  waitForLine("listening");
}

}  // namespace quorvane::bench
