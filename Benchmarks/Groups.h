// The groups of figures, one a file. Each sees to what it needs, measures the helper and its floor
// in turns, so that noise hits both, and reports. All run on one processor but where a figure says
// otherwise.
#pragma once

#include <string>

#include "Processes.h"
#include "Report.h"

namespace quorvane::bench {

struct Setting {
  /// For the machines and the floors' files: one file system for both.
  std::string folder;
  /// With the root certificate of the identity that has signed the programs here.
  std::string anchors;
  bool quick = false;
  /// Their names; none for all.
  std::vector<std::string> groups{};

  [[nodiscard]] int rounds(int count) const { return quick ? (count + 9) / 10 : count; }
  [[nodiscard]] Machine machine(const std::string& name, int fans = 2) const {
    return {folder + "/" + name, anchors, fans};
  }
};

/// The processor for all figures but those on two, and the other one of those.
inline constexpr int processor = 1;
inline constexpr int otherProcessor = 0;

void measureCalls(Report& report, const Setting& setting);
void measurePipelines(Report& report, const Setting& setting);
void measureAdmission(Report& report, const Setting& setting);
void measureStartAndStop(Report& report, const Setting& setting);
void measureMemory(Report& report, const Setting& setting);
void measureLease(Report& report, const Setting& setting);

/// Other roles of this program: they are run as processes beside it.
int connectRepeatedly(const std::string& root, int count);
int floodWithReleases(const std::string& root);

/// Keeps this many requests under way on each channel until all have been answered.
constexpr int requestsInFlight = 64;
void pipeline(std::vector<Channel>& channels, const std::vector<std::string>& requests, int count);

}  // namespace quorvane::bench
