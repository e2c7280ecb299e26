#include <fcntl.h>

#include <array>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "Bench.h"

namespace quorvane::bench {
namespace {

/// The length of the audit line for a renewal of a target.
constexpr std::string_view line = "2026-01-01T00:00:00Z  write F0Tg=2500\n";

struct Message {
  std::array<char, 128> bytes;
  ssize_t size = 0;
};

/// Receives a message with its credentials. Ends the process when the client is gone.
Message receive(int socket) {
  Message message;
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(ucred))> control;
  iovec data{message.bytes.data(), message.bytes.size()};
  msghdr header{nullptr, 0, &data, 1, control.data(), control.size(), 0};
  message.size = recvmsg(socket, &header, MSG_CMSG_CLOEXEC);
  if (message.size <= 0) _exit(0);
  return message;
}

void reply(int socket, const Message& message) {
  const auto size = static_cast<std::size_t>(message.size);
  send(socket, message.bytes.data(), size, MSG_DONTWAIT | MSG_NOSIGNAL);
}

void appendLine(const std::string& path) {
  const int file = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  lseek(file, 0, SEEK_END);
  if (write(file, line.data(), line.size()) < 0) _exit(1);
  close(file);
}

/// Passes messages from the receiving thread to the replying thread.
class Queue {
 public:
  void push(const Message& message) {
    std::unique_lock lock(mutex);
    messages.push_back(message);
    lock.unlock();
    changed.notify_one();
  }
  Message pop() {
    std::unique_lock lock(mutex);
    changed.wait(lock, [this] { return !messages.empty(); });
    const Message message = messages.front();
    messages.pop_front();
    return message;
  }

 private:
  std::mutex mutex;
  std::condition_variable changed;
  std::deque<Message> messages;
};

[[noreturn]] void serve(int socket, Work work, const std::string& file) {
  while (work == Work::echo) reply(socket, receive(socket));
  Queue queue;
  const std::thread receiver([&] {
    for (;;) queue.push(receive(socket));
  });
  for (;;) {
    const Message message = queue.pop();
    if (work == Work::hopAndLine) appendLine(file);
    reply(socket, message);
  }
}

}  // namespace

Floor::Floor(const SimulatedMac& mac, Work work) {
  int ends[] = {-1, -1};
  socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends);
  channel.socket = Descriptor(ends[0]);
  const Descriptor served(ends[1]);
  const int on = 1;
  setsockopt(served.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on);
  // In the audit log's folder.
  const std::string file = "/Library/Application Support/Quorvane/floor.log";
  mac.root.write(file, "");
  server = std::make_unique<Process>([&] { serve(served.get(), work, mac.root.path(file)); });
}

}  // namespace quorvane::bench
