#include "Report.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <optional>

#include "Processes.h"

namespace quorvane::bench {
namespace {

struct Spread {
  double p50;
  double p99;
};

std::optional<Spread> spreadOf(const Samples& samples, bool moreIsBetter) {
  if (samples.empty()) return std::nullopt;
  return Spread{samples.percentile(0.5), samples.percentile(moreIsBetter ? 0.01 : 0.99)};
}

/// Three digits that matter.
std::string number(double value) {
  char text[32];
  const int decimals = std::abs(value) >= 100 ? 0 : std::abs(value) >= 10 ? 1 : 2;
  std::snprintf(text, sizeof text, "%.*f", value == 0 ? 0 : decimals, value);
  return text;
}

std::string ratio(double measured, double floor) {
  return floor > 0 ? number(measured / floor) : "";
}

std::string aimText(const Figure& figure) {
  const std::string bound = number(figure.aim.bound);
  switch (figure.aim.kind) {
    case Aim::Kind::none:
      return "";
    case Aim::Kind::ratioAtMost:
      return "ratio <= " + bound;
    case Aim::Kind::ratioAtLeast:
      return "ratio >= " + bound;
    case Aim::Kind::atMost:
      return "<= " + bound;
    case Aim::Kind::aboveFloorAtMost:
      return "<= floor + " + bound;
  }
  return "";
}

bool isMet(const Figure& figure) {
  const double measured = figure.measured.percentile(0.5);
  const double floor = figure.floor.empty() ? 0 : figure.floor.percentile(0.5);
  switch (figure.aim.kind) {
    case Aim::Kind::none:
      return true;
    case Aim::Kind::ratioAtMost:
      return measured <= figure.aim.bound * floor;
    case Aim::Kind::ratioAtLeast:
      return measured >= figure.aim.bound * floor;
    case Aim::Kind::atMost:
      return measured <= figure.aim.bound;
    case Aim::Kind::aboveFloorAtMost:
      return measured <= floor + figure.aim.bound;
  }
  return false;
}

/// The cells of a figure's line, as the table's heading has them.
std::vector<std::string> cells(const Figure& figure) {
  std::vector<std::string> line{figure.what, figure.unit, "", "", "", "", "", "", aimText(figure)};
  const auto measured = spreadOf(figure.measured, figure.moreIsBetter);
  const auto floor = spreadOf(figure.floor, figure.moreIsBetter);
  line[2] = number(measured->p50);
  line[3] = number(measured->p99);
  if (floor) {
    line[4] = number(floor->p50);
    line[5] = number(floor->p99);
    line[6] = ratio(measured->p50, floor->p50);
    line[7] = ratio(measured->p99, floor->p99);
  }
  if (!isMet(figure)) line.back() += ": MISSED";
  return line;
}

std::string json(const std::string& text) {
  std::string quoted = "\"";
  for (const char character : text) {
    if (character == '"' || character == '\\') quoted += '\\';
    quoted += character;
  }
  return quoted + '"';
}

std::string json(const char* name, const std::optional<Spread>& spread) {
  if (!spread) return "";
  char text[128];
  std::snprintf(text, sizeof text, ", \"%s\": {\"p50\": %.6g, \"p99\": %.6g}", name, spread->p50,
                spread->p99);
  return text;
}

}  // namespace

double Samples::percentile(double part) const {
  std::vector<double> sorted = values;
  const auto rank = std::min(sorted.size() - 1,
                             static_cast<std::size_t>(part * static_cast<double>(sorted.size())));
  std::nth_element(sorted.begin(), sorted.begin() + static_cast<std::ptrdiff_t>(rank),
                   sorted.end());
  return sorted[rank];
}

void Report::progress(const std::string& step) {
  if (isatty(STDERR_FILENO) != 0) {
    std::fprintf(stderr, "\r\033[K%s", step.c_str());
  } else if (!step.empty()) {
    std::fprintf(stderr, "%s\n", step.c_str());
  }
}

void Report::add(Figure figure) {
  if (figure.measured.empty()) fail("nothing was measured: " + figure.what);
  figures.push_back(std::move(figure));
}

void Report::printTable() const {
  std::vector<std::vector<std::string>> lines{{"what", "unit", "p50", "p99", "floor p50",
                                               "floor p99", "ratio p50", "ratio p99", "aim (p50)"}};
  for (const Figure& figure : figures) lines.push_back(cells(figure));
  std::vector<std::size_t> widths(lines.front().size());
  for (const auto& line : lines) {
    for (std::size_t i = 0; i < line.size(); ++i) widths[i] = std::max(widths[i], line[i].size());
  }
  const auto print = [&widths](const std::vector<std::string>& line) {
    for (std::size_t i = 0; i < line.size(); ++i) {
      const bool isNumber = i >= 2 && i + 1 < line.size();
      const int width = static_cast<int>(widths[i]);
      std::printf(isNumber ? "| %*s " : "| %-*s ", width, line[i].c_str());
    }
    std::printf("|\n");
  };
  print(lines.front());
  for (const std::size_t width : widths) std::printf("|%s", std::string(width + 2, '-').c_str());
  std::printf("|\n");
  for (std::size_t i = 1; i < lines.size(); ++i) print(lines[i]);
}

void Report::write(const std::string& path,
                   const std::vector<std::pair<std::string, std::string>>& facts) const {
  std::ofstream file(path);
  file << "{\n";
  for (const auto& [name, value] : facts)
    file << "  " << json(name) << ": " << json(value) << ",\n";
  file << "  \"figures\": [";
  const char* separator = "\n";
  for (const Figure& figure : figures) {
    file << separator << "    {\"what\": " << json(figure.what)
         << ", \"unit\": " << json(figure.unit)
         << json("measured", spreadOf(figure.measured, figure.moreIsBetter))
         << json("floor", spreadOf(figure.floor, figure.moreIsBetter));
    if (figure.aim.kind != Aim::Kind::none) {
      file << ", \"aim\": " << json(aimText(figure))
           << ", \"met\": " << (isMet(figure) ? "true" : "false");
    }
    file << "}";
    separator = ",\n";
  }
  file << "\n  ]\n}\n";
  if (!file.flush()) fail("cannot write " + path);
}

}  // namespace quorvane::bench
