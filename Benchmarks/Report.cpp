#include "Report.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>

#include "Processes.h"

namespace quorvane::bench {
namespace {

/// Three digits that matter.
std::string number(double value) {
  char text[32];
  const int decimals = value == 0 || std::abs(value) >= 100 ? 0 : std::abs(value) >= 10 ? 1 : 2;
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

double p99(const Samples& samples, const Figure& figure) {
  return samples.percentile(figure.moreIsBetter ? 0.01 : 0.99);
}

bool isMet(const Figure& figure) {
  const double floor = figure.floor.empty() ? 0 : figure.floor.percentile(0.5);
  return figure.aim.text == nullptr || figure.aim.isMet(figure.measured.percentile(0.5), floor);
}

using Line = std::vector<std::string>;

const Line heading{"what",      "unit",      "p50",       "p99",      "floor p50",
                   "floor p99", "ratio p50", "ratio p99", "aim (p50)"};

Line cells(const Figure& figure) {
  const double half = figure.measured.percentile(0.5);
  const double most = p99(figure.measured, figure);
  Line line{figure.what, figure.unit, number(half), number(most)};
  if (!figure.floor.empty()) {
    const double floorHalf = figure.floor.percentile(0.5);
    const double floorMost = p99(figure.floor, figure);
    line.insert(line.end(), {number(floorHalf), number(floorMost)});
    if (floorHalf > 0) {
      line.insert(line.end(), {number(half / floorHalf), number(most / floorMost)});
    }
  }
  line.resize(heading.size());
  if (figure.aim.text != nullptr) line.back() = figure.aim.text;
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

std::string json(const char* name, const Samples& samples, const Figure& figure) {
  if (samples.empty()) return "";
  char text[128];
  std::snprintf(text, sizeof text, ", \"%s\": {\"p50\": %.6g, \"p99\": %.6g}", name,
                samples.percentile(0.5), p99(samples, figure));
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
  std::vector<Line> lines{heading};
  for (const Figure& figure : figures) lines.push_back(cells(figure));
  std::vector<std::size_t> widths(lines.front().size());
  for (const auto& line : lines) {
    for (std::size_t i = 0; i < line.size(); ++i) widths[i] = std::max(widths[i], line[i].size());
  }
  const auto print = [&widths](const Line& line) {
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
         << ", \"unit\": " << json(figure.unit) << json("measured", figure.measured, figure)
         << json("floor", figure.floor, figure);
    if (figure.aim.text != nullptr) {
      file << ", \"aim\": " << json(figure.aim.text)
           << ", \"met\": " << (isMet(figure) ? "true" : "false");
    }
    file << "}";
    separator = ",\n";
  }
  file << "\n  ]\n}\n";
  if (!file.flush()) fail("cannot write " + path);
}

}  // namespace quorvane::bench
