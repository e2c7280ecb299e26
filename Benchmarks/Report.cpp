#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

#include "Bench.h"

namespace quorvane::bench {
namespace {

using Row = std::array<std::string, 8>;

void print(const Row& cells) {
  constexpr int widths[] = {-32, -4, 6, 6, 9, 9, 5, -21};  // negative: left-aligned
  for (std::size_t i = 0; i < cells.size(); ++i) std::printf("| %*s ", widths[i], cells[i].c_str());
  std::printf("|\n");
  std::fflush(stdout);
}

/// Formats a value with at least three significant digits, but at most two decimals.
std::string number(double value) {
  const int decimals = value == 0 || std::abs(value) >= 100 ? 0 : std::abs(value) >= 10 ? 1 : 2;
  char text[32];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

/// Returns a percentile of the samples. `part` is 0 to 1.
double percentile(Samples samples, double part) {
  std::ranges::sort(samples);
  return samples.at(static_cast<std::size_t>(part * static_cast<double>(samples.size() - 1)));
}

}  // namespace

void printHeading() {
  print({"what", "unit", "p50", "p99", "floor p50", "floor p99", "ratio", "aim"});
  print({"---", "---", "--:", "--:", "--:", "--:", "--:", "---"});
}

void print(const Figure& figure) {
  const double half = percentile(figure.measured, 0.5);
  Row row{figure.what, figure.unit, number(half), number(percentile(figure.measured, 0.99))};
  double judged = half;
  if (!figure.floor.empty()) {
    const double floor = percentile(figure.floor, 0.5);
    judged = half / floor;
    row[4] = number(floor);
    row[5] = number(percentile(figure.floor, 0.99));
    row[6] = number(judged);
  }
  if (figure.aim) {
    row[7] = figure.floor.empty() ? "<= " : "ratio <= ";
    row[7] += number(*figure.aim) + (judged <= *figure.aim ? "" : ": MISSED");
  }
  print(row);
}

}  // namespace quorvane::bench
