// The shared parts of the benchmark groups: calls over a channel, the floor, the clock and the
// table. The simulated machine, its processes and the handshake come from the tests. Used from the
// main thread, the only thread of the program.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "Support/RawChannel.h"
#include "Support/SimulatedMac.h"

namespace quorvane::bench {

/// The helper as shipped, and the helper with the driver of FastDriver.cpp.
inline constexpr const char* helper = "QuorvaneFanHelper 2>/dev/null";
inline constexpr const char* fastHelper = "QuorvaneFanHelperFast 2>/dev/null";

struct Setting {
  const SimulatedMac& mac;
  bool isQuick = false;

  [[nodiscard]] int rounds(int count) const { return isQuick ? (count + 9) / 10 : count; }
};

/// Each function measures one group and prints it. The helper and its floor alternate, so noise
/// affects both.
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
  /// The samples of the machine without the helper; may be empty.
  Samples floor{};
  /// The largest p50 that meets the aim. With a floor: the largest ratio of the p50s.
  std::optional<double> aim{};
};

void printHeading();
void print(const Figure& figure);

/// Returns an admitted channel to the helper.
test::RawChannel connect();
/// Sends a request and waits for its reply.
void call(const test::RawChannel& channel, const std::string& request);
/// Sends `count` requests, with at most 64 outstanding, and waits for all replies.
void pipeline(const test::RawChannel& channel, const std::string& request, int count);

/// The floor's work for one message.
enum class Work {
  echo,        ///< receive with credentials, send
  hop,         ///< the same, sent by another thread
  hopAndLine,  ///< as hop; that thread first appends a line to a file: open, seek, write, close
};

/// The smallest server: a process that does its work for each message and echoes it.
struct Floor {
  Floor(const SimulatedMac& mac, Work work);

  test::RawChannel channel;
  std::unique_ptr<Process> server;
};

}  // namespace quorvane::bench
