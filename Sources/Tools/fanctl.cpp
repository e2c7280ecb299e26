// The companion on the command line: one command to the helper, and an exit status that says what
// came of it.
#include <algorithm>
#include <functional>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Tools/FanctlBatch.h"
#include "Tools/FanctlCommand.h"
#include "Tools/FanctlForce.h"

namespace quorvane::fanctl {
namespace {

using Command = std::function<ExitStatus(FanControlClient&)>;

constexpr std::string_view usage =
    "usage: fanctl ping | status | auto\n"
    "       fanctl write KEY VALUE [float]\n"
    "       fanctl force FAN RPM\n"
    "       fanctl batch\n"
    "       fanctl --help | --version\n";

constexpr std::string_view help = R"(
ping     asks whether the helper is there and lets us in
status   shows the helper's report, one "key: value" a line
auto     puts every fan back under automatic control
write    writes F0Md to F9Md (0 automatic, 1 forced) or F0Tg to F9Tg (rpm); "float" says that
         VALUE is meant as floating-point. 20 seconds after the last write that forces one,
         the helper takes all fans back.
force    forces FAN (0 to 9) to RPM and renews every 5 seconds, until SIGINT (Ctrl-C), SIGTERM
         or the end of the longest manual period, 1800 seconds; then it puts this one fan, and
         no other, back under automatic control. It ends when someone else has done so.
batch    reads commands from standard input, one a line, fields separated by tabs: ping,
         status, auto, write KEY VALUE [float] and sleep SECONDS (fractions allowed, at most
         an hour). Each is answered with one line: the ping text, the status as key=value
         fields, "true", or "false" and a message, separated by tabs.

exit status: 0 the helper said true (batch: every line was answered), 1 the helper refused
or a forced fan was taken back, 2 bad usage or a malformed line of a batch, 3 the helper
cannot be reached or cut us off.
)";

ExitStatus show(const std::string& text) {
  std::cout << text << "\n";
  return done;
}

ExitStatus show(const Outcome& outcome) {
  return report(outcome);
}

ExitStatus show(const StatusReport& report) {
  for (const auto& [key, value] : report) std::cout << key << ": " << value << "\n";
  return done;
}

/// Which speeds a fan may be set to is for the helper to say.
Command parseForce(Arguments arguments) {
  if (arguments.size() != 2 || arguments[0].size() != 1) return {};
  const char fan = arguments[0].front();
  const std::optional<std::int64_t> rpm = parseInteger(arguments[1]);
  if (fan < '0' || fan > '9' || !rpm) return {};
  return [request = ForceRequest{fan, *rpm}](FanControlClient& client) {
    SignalClock clock;
    return runForce(client, clock, request);
  };
}

/// Empty for arguments that make no command.
Command parseCommand(Arguments arguments) {
  if (arguments.empty()) return {};
  if (arguments[0] == "force") return parseForce(arguments.subspan(1));
  if (arguments[0] == "batch" && arguments.size() == 1) {
    return [](FanControlClient& client) { return runBatch(client, std::cin, std::cout); };
  }
  const Call call = parseCall(arguments);
  if (!call) return {};
  return [call](FanControlClient& client) {
    const Answer answer = call(client);
    if (!answer) return reportUnreachable(client);
    return std::visit([](const auto& value) { return show(value); }, *answer);
  };
}

ExitStatus reportBadUsage(Arguments arguments) {
  std::cerr << (arguments.empty() ? "fanctl: no command given" : "fanctl: not a command:");
  for (const std::string_view argument : arguments) std::cerr << " " << argument;
  std::cerr << "\n" << usage;
  return badUsage;
}

ExitStatus run(Arguments arguments) {
  const bool isSingle = arguments.size() == 1;
  if (isSingle && arguments.front() == "--help") {
    std::cout << usage << help;
    return done;
  }
  if (isSingle && arguments.front() == "--version") {
    std::cout << "fanctl " QUORVANE_VERSION "\n";
    return done;
  }
  const Command command = parseCommand(arguments);
  if (!command) return reportBadUsage(arguments);

  FanControlClient client;
  if (!client.connect()) return reportUnreachable(client);
  return command(client);
}

}  // namespace
}  // namespace quorvane::fanctl

int main(int argc, char* argv[]) {
  const std::vector<std::string_view> arguments(argv + std::min(argc, 1), argv + argc);
  return quorvane::fanctl::run(arguments);
}
