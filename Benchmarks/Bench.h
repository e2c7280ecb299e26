// What the groups of figures share: calls over a channel, the floor that they are held against, the
// clock and the table. The machine, its processes and the handshake are those of the tests. Used
// from the main thread; the program has no other.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "Support/RawChannel.h"
#include "Support/SimulatedMac.h"

namespace quorvane::bench {

/// The helper as it is shipped, and the same on a driver that remembers nothing.
inline constexpr const char* helper = "QuorvaneFanHelper 2>/dev/null";
inline constexpr const char* fastHelper = "QuorvaneFanHelperFast 2>/dev/null";

struct Setting {
  const SimulatedMac& mac;
  bool isQuick = false;

  [[nodiscard]] int rounds(int count) const { return isQuick ? (count + 9) / 10 : count; }
};

/// Each measures one group and prints it. The helper and its floor take turns, so that noise hits
/// both.
void measureCalls(const Setting& setting);
void measurePipelines(const Setting& setting);
void measureMemory(const Setting& setting);
void measureStartAndStop(const Setting& setting);
void measureLease(const Setting& setting);

using Clock = std::chrono::steady_clock;
double microsecondsSince(Clock::time_point start);

using Samples = std::vector<double>;

struct Figure {
  std::string what;
  std::string unit;
  Samples measured;
  /// What the machine itself takes for the same; may be empty.
  Samples floor{};
  /// The p50 should be at most this: its ratio to the floor's if there is a floor, else itself.
  std::optional<double> aim{};
};

void printHeading();
void print(const Figure& figure);

/// A channel to the helper that has been admitted.
test::RawChannel connect();
/// Sends a request and waits for its reply.
void call(const test::RawChannel& channel, const std::string& request);
/// Makes that many requests with 64 of them under way, and waits for all replies.
void pipeline(const test::RawChannel& channel, const std::string& request, int count);

/// What a server has to do for the same service.
enum class Work {
  echo,        ///< receive with credentials, send
  hop,         ///< the same, sent by another thread
  hopAndLine,  ///< which before appends a line to a file: open, seek, write, close
};

/// The least server: a process that echoes what it receives and does nothing else but its work.
struct Floor {
  Floor(const SimulatedMac& mac, Work work);

  test::RawChannel channel;
  std::unique_ptr<Process> server;
};

}  // namespace quorvane::bench
