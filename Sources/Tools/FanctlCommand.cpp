#include "Tools/FanctlCommand.h"

#include <charconv>
#include <iostream>
#include <system_error>

#include "Platform/UTF8.h"

namespace quorvane::fanctl {

std::optional<std::int64_t> parseInteger(std::string_view text) {
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::optional<WriteRequest> parseWrite(std::span<const std::string_view> arguments) {
  if (arguments.size() != 2 && arguments.size() != 3) return std::nullopt;
  const std::string_view flag = arguments.size() == 3 ? arguments[2] : "";
  if (!flag.empty() && flag != "float") return std::nullopt;
  // The channel carries no other text: such a key would cost us the connection.
  if (!isValidUTF8(arguments[0])) return std::nullopt;
  const std::optional<std::int64_t> value = parseInteger(arguments[1]);
  if (!value) return std::nullopt;
  return WriteRequest{std::string(arguments[0]), *value, flag == "float"};
}

ExitStatus reportUnreachable(const FanControlClient& client) {
  std::cerr << "fanctl: " << client.error() << "\n";
  return unreachable;
}

ExitStatus report(const FanControlClient& client,
                  const std::optional<FanControlClient::Outcome>& outcome) {
  if (!outcome) return reportUnreachable(client);
  if (outcome->success) return done;
  std::cerr << "fanctl: " << outcome->message.value_or("refused without a reason") << "\n";
  return refused;
}

}  // namespace quorvane::fanctl
