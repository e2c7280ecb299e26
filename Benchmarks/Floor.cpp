#include "Floor.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <mutex>
#include <thread>

namespace quorvane::bench {
namespace {

/// As long as the line of a target's renewal.
constexpr std::string_view line = "2026-01-01T00:00:00Z  write F0Tg=2500\n";

struct Message {
  int socket;
  std::size_t size;
  std::array<char, 128> bytes;

  void echo() const { send(socket, bytes.data(), size, MSG_DONTWAIT | MSG_NOSIGNAL); }
};

bool receive(Message& message) {
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(ucred))> control{};
  iovec data{message.bytes.data(), message.bytes.size()};
  msghdr header{};
  header.msg_iov = &data;
  header.msg_iovlen = 1;
  header.msg_control = control.data();
  header.msg_controllen = control.size();
  const ssize_t size = recvmsg(message.socket, &header, MSG_CMSG_CLOEXEC);
  if (size <= 0) return false;
  message.size = static_cast<std::size_t>(size);
  return true;
}

void appendLine(const char* path) {
  const int file = open(path, O_WRONLY | O_CLOEXEC);
  lseek(file, 0, SEEK_END);
  if (write(file, line.data(), line.size()) < 0) fail("no line");
  close(file);
}

/// The thread to hop to.
class Worker {
 public:
  explicit Worker(std::string lines) : path(std::move(lines)) {
    std::thread([this] { run(); }).detach();
  }

  void submit(const Message& message) {
    {
      const std::scoped_lock lock(mutex);
      messages.push_back(message);
    }
    changed.notify_one();
  }

 private:
  void run() {
    for (;;) {
      std::unique_lock lock(mutex);
      changed.wait(lock, [this] { return !messages.empty(); });
      const Message message = messages.front();
      messages.pop_front();
      lock.unlock();
      if (!path.empty()) appendLine(path.c_str());
      message.echo();
    }
  }

  const std::string path;
  std::mutex mutex;
  std::condition_variable changed;
  std::deque<Message> messages;
};

void serveClient(int socket, Worker* worker) {
  Message message{socket, 0, {}};
  while (receive(message)) {
    if (worker == nullptr) {
      message.echo();
    } else {
      worker->submit(message);
    }
  }
}

}  // namespace

int serveAsFloor(const std::vector<std::string>& arguments) {
  const FloorWork work{arguments.at(0).front()};
  const std::string& path = arguments.at(1);
  Worker* const worker =
      work == FloorWork::echo ? nullptr : new Worker(work == FloorWork::hopAndLine ? path : "");
  std::vector<std::thread> threads;
  for (std::size_t i = 2; i < arguments.size(); ++i) {
    threads.emplace_back(serveClient, std::stoi(arguments[i]), worker);
  }
  for (std::thread& thread : threads) thread.join();
  _exit(0);
}

namespace {

std::vector<Descriptor> connect(int clients, std::vector<Channel>& channels) {
  std::vector<Descriptor> served;
  for (int i = 0; i < clients; ++i) {
    std::array<int, 2> pair{};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair.data()) != 0) fail("no pair");
    const int on = 1;
    setsockopt(pair[1], SOL_SOCKET, SO_PASSCRED, &on, sizeof on);
    channels.emplace_back(Descriptor(pair[0]));
    served.emplace_back(pair[1]);
  }
  return served;
}

std::vector<int> numbersOf(const std::vector<Descriptor>& descriptors) {
  std::vector<int> numbers;
  for (const Descriptor& descriptor : descriptors) numbers.push_back(descriptor.get());
  return numbers;
}

std::vector<std::string> commandOf(FloorWork work, const std::string& root,
                                   const std::vector<int>& sockets,
                                   std::vector<std::string> command) {
  const std::string logs = root + "/Library/Application Support/Quorvane";
  std::filesystem::create_directories(logs);
  const std::string path = logs + "/floor.log";
  close(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  command.insert(command.end(), {programsFolder() + "/bench", "floor",
                                 std::string(1, static_cast<char>(work)), path});
  for (const int socket : sockets) command.push_back(std::to_string(socket));
  return command;
}

}  // namespace

Floor::Floor(FloorWork work, const std::string& root, int clients, std::vector<std::string> wrapper)
    : served(connect(clients, channels)),
      server(commandOf(work, root, numbersOf(served), std::move(wrapper)), root,
             numbersOf(served)) {
  served.clear();
}

}  // namespace quorvane::bench
