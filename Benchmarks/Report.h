// What a run of the benchmarks has found: figures, each beside its floor and held to its aim, as a
// table for people and as a file for programs. Used from the main thread.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace quorvane::bench {

class Samples {
 public:
  void add(double value) { values.push_back(value); }
  [[nodiscard]] bool empty() const { return values.empty(); }
  /// The value that this part of the samples, 0 to 1, does not exceed.
  [[nodiscard]] double percentile(double part) const;

 private:
  std::vector<double> values;
};

/// What a figure should be, of its p50 and its floor's; without a text it only informs.
struct Aim {
  const char* text = nullptr;
  bool (*isMet)(double measured, double floor) = nullptr;
};

struct Figure {
  std::string what;
  std::string unit;
  Samples measured;
  /// What the machine itself takes for the same; may be empty.
  Samples floor{};
  Aim aim{};
  /// Of a rate, the p99 is what all but one of a hundred samples reach.
  bool moreIsBetter = false;
};

class Report {
 public:
  /// Says on standard error what is going on; the next step or figure takes its place.
  static void progress(const std::string& step);
  void add(Figure figure);

  void printTable() const;
  /// JSON: the given facts about the run, then the figures. Ends the program when it cannot.
  void write(const std::string& path,
             const std::vector<std::pair<std::string, std::string>>& facts) const;

 private:
  std::vector<Figure> figures;
};

}  // namespace quorvane::bench
