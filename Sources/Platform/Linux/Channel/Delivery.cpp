#include "Platform/Linux/Channel/Delivery.h"

#include <utility>

namespace quorvane::xpc {
namespace {

/// Calls a request's operation, with a function that encodes the reply.
struct Call {
  FanControlXPC& object;
  std::uint32_t number;
  std::shared_ptr<ReplySink> sink;

  auto reply() {
    return [sink = std::move(sink), number = number](const auto& answer) {
      sink->give(encodeReply(number, answer));
    };
  }
  FanControlXPC::OutcomeReply outcomeReply() {
    return [reply = reply()](bool success, std::optional<std::string> message) {
      reply(Outcome{success, std::move(message)});
    };
  }

  void operator()(WriteFanKeyRequest& request) {
    object.writeFanKey(std::move(request.key), request.value, request.isFloat, outcomeReply());
  }
  void operator()(const RestoreAutoRequest& /*request*/) { object.restoreAuto(outcomeReply()); }
  void operator()(const StatusRequest& /*request*/) { object.status(reply()); }
  void operator()(const PingRequest& /*request*/) { object.ping(reply()); }
};

}  // namespace

void deliver(Request request, FanControlXPC& object, std::shared_ptr<ReplySink> sink) {
  std::visit(Call{object, request.callNumber, std::move(sink)}, request.operation);
}

}  // namespace quorvane::xpc
