#include "Tools/FanctlBatch.h"

#include <algorithm>
#include <charconv>
#include <functional>
#include <iostream>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

namespace quorvane::fanctl {
namespace {

using Seconds = std::chrono::duration<double>;
/// The line that answers a command, or nothing when the helper is gone.
using Answer = std::optional<std::string>;
using Command = std::function<Answer(FanControlClient&)>;

std::vector<std::string_view> splitAtTabs(std::string_view line) {
  std::vector<std::string_view> fields;
  for (;;) {
    const std::size_t tab = line.find('\t');
    fields.push_back(line.substr(0, tab));
    if (tab == std::string_view::npos) return fields;
    line.remove_prefix(tab + 1);
  }
}

/// A decimal number of seconds, fractions allowed. It begins with a digit: no sign, no "inf".
std::optional<Seconds> parseSeconds(std::string_view text) {
  if (text.empty() || text.front() < '0' || text.front() > '9') return std::nullopt;
  double value = 0;
  const auto [end, error] =
      std::from_chars(text.data(), text.data() + text.size(), value, std::chars_format::fixed);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  if (Seconds(value) > maxSleep) return std::nullopt;
  return Seconds(value);
}

std::string withoutSeparators(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c == '\t' || c == '\n'; }, ' ');
  return text;
}

Answer answerOutcome(const std::optional<FanControlClient::Outcome>& outcome) {
  if (!outcome) return std::nullopt;
  if (outcome->success) return "true";
  return "false\t" + withoutSeparators(outcome->message.value_or(""));
}

Answer answerStatus(FanControlClient& client) {
  const std::optional<StatusReport> report = client.status();
  if (!report) return std::nullopt;
  std::string line;
  for (const auto& [key, value] : *report) {
    if (!line.empty()) line += '\t';
    line += withoutSeparators(key) + "=" + withoutSeparators(value);
  }
  return line;
}

Answer answerPing(FanControlClient& client) {
  std::optional<std::string> text = client.ping();
  if (!text) return std::nullopt;
  return withoutSeparators(std::move(*text));
}

/// Empty for a line that makes no command.
Command parse(std::string_view line) {
  const std::vector<std::string_view> fields = splitAtTabs(line);
  const std::span arguments = std::span(fields).subspan(1);
  if (arguments.empty()) {
    if (fields[0] == "ping") return answerPing;
    if (fields[0] == "status") return answerStatus;
    if (fields[0] == "auto") {
      return [](FanControlClient& client) { return answerOutcome(client.restoreAuto()); };
    }
  }
  if (fields[0] == "write") {
    if (const std::optional<WriteRequest> request = parseWrite(arguments)) {
      return [request](FanControlClient& client) {
        return answerOutcome(client.writeFanKey(request->key, request->value, request->isFloat));
      };
    }
  }
  if (fields[0] == "sleep" && arguments.size() == 1) {
    if (const std::optional<Seconds> duration = parseSeconds(arguments[0])) {
      return [duration](FanControlClient&) {
        std::this_thread::sleep_for(*duration);
        return Answer("true");
      };
    }
  }
  return {};
}

}  // namespace

ExitStatus runBatch(FanControlClient& client, std::istream& commands, std::ostream& answers) {
  std::vector<char> buffer(maxLineBytes + 1);
  std::size_t number = 1;
  for (; commands.getline(buffer.data(), std::ssize(buffer)); ++number) {
    // The count includes the line feed, which a last line may lack.
    const std::streamsize length = commands.gcount() - (commands.eof() ? 0 : 1);
    const Command command = parse({buffer.data(), static_cast<std::size_t>(length)});
    if (!command) break;
    const Answer answer = command(client);
    if (!answer) return reportUnreachable(client);
    answers << *answer << "\n" << std::flush;
  }
  // Past the last line the stream is in eof; a line above the bound fails without it.
  if (commands.fail() && commands.eof()) return done;
  std::cerr << "fanctl: line " << number << " of the batch is malformed\n";
  return badUsage;
}

}  // namespace quorvane::fanctl
