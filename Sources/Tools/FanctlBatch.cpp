#include "Tools/FanctlBatch.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <thread>
#include <vector>

namespace quorvane::fanctl {
namespace {

using Seconds = std::chrono::duration<double>;

/// Returns the next line without its line feed, or nothing at the end.
std::optional<std::string> readLine(std::FILE* file) {
  char* text = nullptr;
  std::size_t capacity = 0;
  const ssize_t length = getline(&text, &capacity, file);
  const std::unique_ptr<char, decltype(&std::free)> owner(text, std::free);
  if (length < 0) return std::nullopt;
  std::string line(text, static_cast<std::size_t>(length));
  if (line.ends_with('\n')) line.pop_back();
  return line;
}

std::vector<std::string_view> splitAtTabs(std::string_view line) {
  std::vector<std::string_view> fields;
  for (;;) {
    const std::size_t tab = line.find('\t');
    fields.push_back(line.substr(0, tab));
    if (tab == std::string_view::npos) return fields;
    line.remove_prefix(tab + 1);
  }
}

/// Parses a decimal number of seconds, fractions allowed. It must begin with a digit, so a sign and
/// "inf" are malformed.
std::optional<Seconds> parseSeconds(std::string_view text) {
  if (text.empty() || text.front() == '.') return std::nullopt;
  if (text.find_first_not_of("0123456789.") != std::string_view::npos) return std::nullopt;
  const std::string number(text);
  // Not from_chars(): macOS's library has it for integers only.
  char* end = nullptr;
  const Seconds duration(std::strtod(number.c_str(), &end));
  if (*end != '\0' || duration > maxSleep) return std::nullopt;
  return duration;
}

/// Returns an empty call for a malformed line.
Call parseLine(std::string_view line) {
  const std::vector<std::string_view> fields = splitAtTabs(line);
  if (fields[0] != "sleep") return parseCall(fields);
  if (fields.size() != 2) return {};
  const std::optional<Seconds> duration = parseSeconds(fields[1]);
  if (!duration) return {};
  return [duration](FanControlClient&) {
    std::this_thread::sleep_for(*duration);
    return Outcome{true, std::nullopt};
  };
}

std::string render(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c == '\t' || c == '\n'; }, ' ');
  return text;
}

std::string render(const Outcome& outcome) {
  return outcome.success ? "true" : "false\t" + render(outcome.message.value_or(""));
}

std::string render(const StatusReport& report) {
  std::string line;
  for (const auto& [key, value] : report) {
    if (!line.empty()) line += '\t';
    line += render(key) + "=" + render(value);
  }
  return line;
}

}  // namespace

ExitStatus runBatch(FanControlClient& client, std::FILE* commands, std::FILE* answers) {
  for (unsigned number = 1; const std::optional<std::string> line = readLine(commands); ++number) {
    const Call call = parseLine(*line);
    if (!call) {
      return complain(badUsage, "line " + std::to_string(number) + " of the batch is malformed");
    }
    const Reply reply = call(client);
    if (!reply) return reportUnreachable(client);
    const std::string answer =
        std::visit([](const auto& value) { return render(value); }, *reply) + "\n";
    std::fwrite(answer.data(), 1, answer.size(), answers);
    std::fflush(answers);
  }
  return done;
}

}  // namespace quorvane::fanctl
