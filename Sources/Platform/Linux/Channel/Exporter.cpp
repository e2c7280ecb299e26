#include "Platform/Linux/Channel/Exporter.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <variant>

#include "Platform/Linux/Channel/Wire.h"

namespace quorvane::xpc {

bool deliver(std::string_view request, const Interface& interface, FanControlXPC& object,
             std::shared_ptr<Answer> answer) {
  std::optional<Request> call = decodeRequest(request, interface.operations);
  if (!call) return false;

  // Moved on, not copied, to the one call below that takes it.
  auto reply = [answer = std::move(answer), number = call->callNumber](auto... values) {
    answer->give(encodeReply(number, std::array{Value(std::move(values))...}));
  };
  auto outcome = [&reply] {
    return [reply = std::move(reply)](bool success, std::optional<std::string> message) {
      reply(success, message ? Value(std::move(*message)) : Value());
    };
  };

  const auto& [writeFanKey, restoreAuto, status, ping] = fanControlOperations;
  const std::string_view selector = call->operation->selector;
  if (selector == writeFanKey.selector) {
    auto& arguments = call->arguments;
    object.writeFanKey(std::get<std::string>(std::move(arguments[0])),
                       std::get<std::int64_t>(arguments[1]), std::get<bool>(arguments[2]),
                       outcome());
  } else if (selector == restoreAuto.selector) {
    object.restoreAuto(outcome());
  } else if (selector == status.selector) {
    object.status(std::move(reply));
  } else if (selector == ping.selector) {
    object.ping(std::move(reply));
  } else {
    return false;
  }
  return true;
}

}  // namespace quorvane::xpc
