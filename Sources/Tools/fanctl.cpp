// The companion on the command line: executes one command and reports success as the exit status.
#include <getopt.h>

#include <algorithm>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "QuorvaneFanHelper/FanReading.h"
#include "Tools/FanctlBatch.h"
#include "Tools/FanctlCommand.h"
#include "Tools/FanctlForce.h"

namespace quorvane::fanctl {
namespace {

using FanControlConstants::maxTargetRPM;

constexpr const char* usage =
    "usage: fanctl ping | auto | batch\n"
    "       fanctl status | fans [--json]\n"
    "       fanctl write KEY VALUE [float]\n"
    "       fanctl force FAN RPM | FAN=RPM ...\n"
    "       fanctl -h | --help | --version\n";

constexpr const char* help = R"(
ping     asks whether the helper is there and lets us in
status   shows the helper's report, one "key: value" a line
fans     shows each fan's speeds (rpm) and mode; "-" where we may not read it
auto     puts every fan back under automatic control
write    writes F0Md to F9Md (0 automatic, 1 forced) or F0Tg to F9Tg (rpm);
         "float" says that VALUE is meant as floating-point. 20 seconds after
         the last write that forces one, the helper takes all fans back.
force    forces each FAN (0 to 9) to its RPM (0 to 12000) until Ctrl-C, the end
         of the terminal or 1800 seconds; then gives these, and no others, back
batch    answers each line of standard input, ping, status, auto, write KEY
         VALUE [float] or sleep SECONDS, fields separated by tabs, with one

exit status: 0 done, 1 the helper refused, a forced fan was taken back, no fan
can be read or the output cannot be written, 2 bad usage, 3 the helper cannot
be reached or cut us off; fanctl(1) tells more)";

/// Returns what is wrong with the arguments; empty if they are valid.
std::string parseForce(Arguments arguments, ForceRequests& requests) {
  std::vector<std::string> pairs(arguments.begin(), arguments.end());
  const bool isOneFan = pairs.size() == 2 && pairs[0].find('=') == std::string::npos;
  if (isOneFan) pairs = {pairs[0] + "=" + pairs[1]};
  for (const std::string& pair : pairs) {
    const std::size_t sign = pair.find('=');
    if (sign == std::string::npos) return "not FAN=RPM: " + pair;
    const std::string fan = pair.substr(0, sign), rpm = pair.substr(sign + 1);
    if (fan.size() != 1 || fan < "0" || fan > "9") return "fan must be 0 to 9: " + fan;
    const auto isSame = [&](const ForceRequest& other) { return other.fan == fan[0] - '0'; };
    if (std::any_of(requests.begin(), requests.end(), isSame)) {
      return "fan " + fan + " is given twice";
    }
    const std::optional<std::int64_t> speed = parseInteger(rpm);
    if (!speed) return "rpm must be a whole number: " + rpm;
    if (*speed < 0 || *speed > maxTargetRPM) {
      return "rpm must be 0 to " + std::to_string(maxTargetRPM) + ": " + rpm;
    }
    requests.push_back({fan[0] - '0', *speed});
  }
  return pairs.empty() ? "force takes FAN RPM, or FAN=RPM for each fan" : "";
}

ExitStatus print(const std::string& text) {
  std::fputs(text.c_str(), stdout);
  return done;
}

ExitStatus reportBadUsage(Arguments arguments) {
  if (arguments.size() > 2 && arguments[0] == "write" && !parseInteger(arguments[2])) {
    return complain(badUsage, "the value must be a whole number: " + std::string(arguments[2]));
  }
  std::string complaint = arguments.empty() ? "no command given" : "not a command:";
  for (const std::string_view argument : arguments) complaint.append(" ").append(argument);
  complain(badUsage, complaint);
  std::fputs(usage, stderr);
  return badUsage;
}

using Members = std::vector<std::pair<std::string, std::string>>;

/// Returns a JSON string. The text must be valid UTF-8.
std::string quote(const std::string& text) {
  constexpr char digits[] = "0123456789abcdef";
  std::string json = "\"";
  for (const char c : text) {
    const bool isPlain = static_cast<unsigned char>(c) >= 0x20 && c != '"' && c != '\\';
    json += isPlain ? std::string(1, c) : std::string("\\u00") + digits[c >> 4] + digits[c & 15];
  }
  return json + '"';
}

/// The values must be JSON.
std::string object(const Members& members) {
  std::string json;
  for (const auto& [key, value] : members) {
    json += (json.empty() ? "{" : ",") + quote(key) + ":" + value;
  }
  return json + "}";
}

ExitStatus show(const Reply& reply, bool asJSON) {
  if (const auto* outcome = std::get_if<Outcome>(&*reply)) return report(*outcome);
  if (const auto* text = std::get_if<std::string>(&*reply)) return print(*text + "\n");
  StatusReport report = std::get<StatusReport>(*reply);
  std::string lines;
  for (auto& [key, value] : report) {
    lines.append(key).append(": ").append(value).append("\n");
    value = quote(value);
  }
  return print(asJSON ? object(report) + "\n" : lines);
}

template <class Number>
std::string render(const std::optional<Number>& number, bool asJSON) {
  return number ? std::to_string(*number) : asJSON ? "null" : "-";
}

std::string render(unsigned fan, const FanReading& reading, bool asJSON) {
  std::string mode = render(reading.mode, asJSON);
  if (!asJSON && mode == "0") mode = "automatic";
  if (!asJSON && mode == "1") mode = "forced";
  const Members members = {{"fan", std::to_string(fan)},
                           {"actual", render(reading.actual, asJSON)},
                           {"target", render(reading.target, asJSON)},
                           {"minimum", render(reading.minimum, asJSON)},
                           {"maximum", render(reading.maximum, asJSON)},
                           {"mode", mode}};
  if (asJSON) return object(members);
  std::string line;
  for (const auto& [name, text] : members) {
    line += padded(text, name == "fan" ? 3 : 10);
  }
  return line;
}

/// Reads the SMC itself, so it needs no admission.
ExitStatus showFans(bool asJSON) {
  HelperSMC smc;
  connectIfThere(smc);
  const std::optional<std::uint8_t> count = smc.readByte("FNum");
  if (!count) {
    return complain(refused, "no SMC answers this user; a simulated one answers root only");
  }
  std::string text = asJSON ? "[" : "Fan    Actual    Target   Minimum   Maximum      Mode";
  for (unsigned fan = 0; fan < *count; ++fan) {
    text += asJSON ? (fan == 0 ? "" : ",") : "\n";
    text += render(fan, readFan(smc, fan), asJSON);
  }
  return print(text + (asJSON ? "]\n" : "\n"));
}

/// Runs the commands that need the helper.
ExitStatus ask(Arguments arguments, bool asJSON) {
  const bool isForce = arguments[0] == "force";
  const bool isBatch = arguments[0] == "batch" && arguments.size() == 1;
  const Call call = parseCall(arguments);
  if (!isForce && !isBatch && !call) return reportBadUsage(arguments);
  ForceRequests requests;
  const std::string complaint = isForce ? parseForce(arguments.subspan(1), requests) : "";
  if (!complaint.empty()) return complain(badUsage, complaint);

  FanControlClient client;
  if (!client.connect()) return reportUnreachable(client);
  if (isBatch) return runBatch(client, stdin, stdout);
  if (isForce) {
    StopBySignal stop;
    return runForce(client, stop, requests);
  }
  const Reply reply = call(client);
  return reply ? show(reply, asJSON) : reportUnreachable(client);
}

/// A negative number is an operand, which the helper refuses, and not an option.
bool isNegativeNumber(std::string_view argument) {
  return argument.size() > 1 && argument[0] == '-' && parseInteger(argument).has_value();
}

ExitStatus run(int argc, char* argv[]) {
  static constexpr option options[] = {{"help", no_argument, nullptr, 'h'},
                                       {"json", no_argument, nullptr, 'j'},
                                       {"version", no_argument, nullptr, 'v'},
                                       {}};
  std::vector<std::string_view> operands;
  bool asJSON = false;
  // The "-" makes getopt_long() return operands in their order, as 1, so options may follow them.
  while (optind < argc) {
    if (isNegativeNumber(argv[optind])) {
      operands.emplace_back(argv[optind++]);
      continue;
    }
    const int each = getopt_long(argc, argv, "-h", options, nullptr);
    if (each == -1) break;
    if (each == '?') return badUsage;
    if (each == 'h') return print(std::string(usage) + help + "\n");
    if (each == 'v') return print("fanctl " QUORVANE_VERSION "\n");
    if (each == 'j') asJSON = true;
    if (each == 1) operands.emplace_back(optarg);
  }
  operands.insert(operands.end(), argv + std::min(optind, argc), argv + argc);
  if (operands.empty()) return reportBadUsage(operands);
  const bool isFans = operands[0] == "fans" && operands.size() == 1;
  if (asJSON && !isFans && operands[0] != "status") {
    return complain(badUsage, "--json is for status and fans");
  }
  return isFans ? showFans(asJSON) : ask(operands, asJSON);
}

/// Output that was not written makes the command fail.
ExitStatus finish(ExitStatus status) {
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return status;
  return std::max(complain(refused, "the output cannot be written"), status);
}

}  // namespace
}  // namespace quorvane::fanctl

int main(int argc, char* argv[]) {
  using namespace quorvane::fanctl;
  return finish(run(argc, argv));
}
