#include "Tools/FanctlCommand.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <system_error>

#include "Platform/UTF8.h"

namespace quorvane::fanctl {
namespace {

Call parseWrite(Arguments arguments) {
  if (arguments.size() != 2 && arguments.size() != 3) return {};
  const std::string_view flag = arguments.size() == 3 ? arguments[2] : "";
  if (!flag.empty() && flag != "float") return {};
  // The channel accepts valid UTF-8 only: the helper would close the connection.
  if (!isValidUTF8(arguments[0])) return {};
  const std::optional<std::int64_t> value = parseInteger(arguments[1]);
  if (!value) return {};
  const bool isFloat = !flag.empty();
  return [key = std::string(arguments[0]), value, isFloat](FanControlClient& client) {
    return client.writeFanKey(key, *value, isFloat);
  };
}

}  // namespace

Call parseCall(Arguments arguments) {
  if (arguments.empty()) return {};
  if (arguments[0] == "write") return parseWrite(arguments.subspan(1));
  if (arguments.size() != 1) return {};
  if (arguments[0] == "ping") return &FanControlClient::ping;
  if (arguments[0] == "status") return &FanControlClient::status;
  if (arguments[0] == "auto") return &FanControlClient::restoreAuto;
  return {};
}

std::optional<std::int64_t> parseInteger(std::string_view text) {
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::string padded(const std::string& text, std::size_t width) {
  return std::string(width - std::min(width, text.size()), ' ') + text;
}

ExitStatus complain(ExitStatus status, const std::string& text) {
  std::fprintf(stderr, "fanctl: %s\n", text.c_str());
  return status;
}

ExitStatus report(const Outcome& outcome) {
  if (outcome.success) return done;
  return complain(refused, outcome.message.value_or("refused without a reason"));
}

ExitStatus reportUnreachable(const FanControlClient& client) {
  return complain(unreachable, client.error());
}

}  // namespace quorvane::fanctl
