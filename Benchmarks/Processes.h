// What the groups of figures share: programs beside this one, the machines that helpers run on, the
// channel to a helper, and the clock. Used from the main thread; this program has no other.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/File.h"

namespace quorvane::bench {

/// Says why on standard error and ends this program.
[[noreturn]] void fail(const std::string& why);

using Clock = std::chrono::steady_clock;
double microsecondsSince(Clock::time_point start);

/// From now on this program, and what it starts, runs on this processor only. False when there is
/// no such processor.
bool runOn(int processor);

/// The threads of a process, as folders of proc(5).
std::filesystem::directory_iterator tasksOf(pid_t pid);

/// What all threads of a process have used up so far.
double processorMicroseconds(pid_t pid);

/// The folder with the programs of the build, and so this one.
std::string programsFolder();

/// A program beside this one. It is killed with this object, and when this program dies.
class Program {
 public:
  /// Starts it in a system root. `inherited`: the descriptors that it is to have, besides the
  /// standard ones, under the same numbers.
  Program(const std::vector<std::string>& command, const std::string& root,
          const std::vector<int>& inherited = {});
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  /// Returns when a line with this text has come on its standard error.
  void waitForLine(std::string_view text);
  /// Its exit status, once it has ended.
  int wait();
  int stop(int signal);

  [[nodiscard]] pid_t pid() const { return child; }

 private:
  pid_t child = -1;
  Descriptor standardError;
  std::string unread;
};

/// The client's end of a channel, or of a floor that stands in for one.
class Channel {
 public:
  explicit Channel(Descriptor connected) : socket(std::move(connected)) {}

  /// Connects, proves to read, and is answered a ping.
  static Channel enter(const std::string& root);

  /// Sends a request and waits for its reply.
  void call(std::string_view request);
  void send(std::string_view request) const;
  /// Takes the next reply, waiting for it or not; false when there was none to take.
  [[nodiscard]] bool receive(bool waiting = true);

  [[nodiscard]] int descriptor() const { return socket.get(); }

 private:
  Descriptor socket;
  char buffer[1024];
  std::size_t size = 0;
};

/// The requests, encoded. All writes of a target renew the lease.
std::string pingRequest();
std::string statusRequest();
std::string writeRequest(const std::string& key, std::int64_t value);

/// A system root with a simulated SMC, which admits this program once it is signed.
class Machine {
 public:
  /// `anchors` has the root certificate that is trusted.
  Machine(std::string folder, const std::string& anchors, int fans = 2);

  [[nodiscard]] Channel enter() const { return Channel::enter(root); }

  const std::string root;
};

/// The helper on a machine, listening.
class Helper : public Program {
 public:
  static constexpr const char* real = "QuorvaneFanHelper";
  /// The same, on a driver that only remembers.
  static constexpr const char* fast = "QuorvaneFanHelperFast";

  Helper(const std::string& program, const Machine& machine);
};

}  // namespace quorvane::bench
