// Fuzzes the guard's end of a connection with an admitted peer: datagrams in, replies out, with the
// real service on the virtual dispatch and the scripted SMC. An input is datagrams between
// separators. The low five bits of the byte before each are the seconds that pass before it.
#include <cassert>
#include <cstring>

#include "Platform/Linux/Channel/Delivery.h"
#include "QuorvaneFanHelper/AuditLog.h"
#include "QuorvaneFanHelper/FanHelperService.h"
#include "Support/ScriptedSMC.h"
#include "Support/VirtualDispatch.h"

/// Replaces the helper's audit(): discards the line.
void quorvane::audit(std::string_view /*message*/) {}

namespace quorvane::xpc {
namespace {

/// Asserts that each write is to a fan's key and in that key's range.
void serveChecked(ScriptedSMC::Call& call) {
  const bool isMode = call.key.ends_with("Md");
  float value = call.request[48];
  if (!isMode) std::memcpy(&value, &call.request[48], sizeof value);
  const bool isInRange = value >= 0 && value <= (isMode ? 1 : 12000);
  assert(!call.isWrite() || (call.key != "FNum" && isInRange));
  machine().answer(call);
}

/// Makes the one service of all inputs, like a daemon of many connections. Each finds it at rest.
std::shared_ptr<FanHelperService> start() {
  machine().setFanCount(3);
  for (const std::string fan : {"F0", "F1", "F2"}) {
    machine().addKey(fan + "Md", "ui8 ", 1, 0xC0);
    if (fan != "F2") machine().addKey(fan + "Tg", "flt ", 4, 0xC0);  // so that writes fail too
  }
  machine().serve = serveChecked;
  auto service = std::make_shared<FanHelperService>();
  service->startup();
  return service;
}

int requestsUnderWay = 0;

/// Checks the reply against its request.
struct CheckedSink final : ReplySink {
  explicit CheckedSink(const Request& asked) : request(asked) { ++requestsUnderWay; }
  void give(std::string_view reply) override {
    assert(!isAnswered);
    isAnswered = true;
    --requestsUnderWay;
    const bool isQuoted = std::holds_alternative<WriteFanKeyRequest>(request.operation);
    assert(!isQuoted || decodeReply<Outcome>(reply, request.callNumber));
  }

  const Request request;
  bool isAnswered = false;
};

/// Handles a datagram as a connection does. Returns false if the connection must end.
bool receive(std::string_view datagram, FanHelperService& service) {
  const auto request = decodeRequest(datagram);
  if (!request) return false;
  // A request has one encoding, except that an absent key decodes as the empty key.
  const auto* write = std::get_if<WriteFanKeyRequest>(&request->operation);
  const bool isKeyless = write != nullptr && write->key.empty();
  assert(isKeyless || encodeRequest(request->callNumber, request->operation) == datagram);
  deliver(*request, service, std::make_shared<CheckedSink>(*request));
  return true;
}

void serve(std::string_view input) {
  constexpr std::string_view separator = "\xFE\xFE";  // not UTF-8, so not in a request's texts
  static const auto service = start();
  for (bool isOpen = true; isOpen && !input.empty();) {
    // With a zero byte nothing runs before the datagram, so that requests can accumulate.
    if (input[0] != 0) virtualdispatch::advance(std::chrono::seconds(input[0] & 0x1F));
    const std::string_view part = input.substr(1, input.find(separator, 1) - 1);
    input.remove_prefix(std::min(1 + part.size() + separator.size(), input.size()));
    // A copy of the exact size lets the sanitizer detect reads past its end.
    const std::vector<char> datagram(part.begin(), part.end());
    isOpen = receive({datagram.data(), datagram.size()}, *service);
  }
  virtualdispatch::advance(std::chrono::seconds(FanControlConstants::leaseSeconds));
  for (const char* mode : {"F0Md", "F1Md", "F2Md"}) assert(machine().keys.at(mode)[48] == 0);
  assert(virtualdispatch::deadlines().empty());
  assert(requestsUnderWay == 0);
  virtualdispatch::reset();  // long before the clock overflows
}

}  // namespace
}  // namespace quorvane::xpc

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  quorvane::xpc::serve(std::string(data, data + size));
  return 0;
}
