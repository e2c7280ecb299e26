// Fuzzes the guard's end of a connection whose peer is admitted: datagrams in, replies out, with
// the real service on the virtual dispatch and the scripted SMC. An input is datagrams between
// separators; the byte in front of each says how many seconds pass before it comes.
#include <cassert>
#include <cstring>

#include "Platform/Linux/Channel/Delivery.h"
#include "QuorvaneFanHelper/AuditLog.h"
#include "QuorvaneFanHelper/FanHelperService.h"
#include "Support/ScriptedSMC.h"
#include "Support/VirtualDispatch.h"

/// In the place of the helper's.
void quorvane::audit(std::string_view /*message*/) {}

namespace quorvane::xpc {
namespace {

/// What is written, to a key of a fan, is in the key's range.
void serveChecked(ScriptedSMC::Call& call) {
  const bool isMode = call.key.ends_with("Md");
  float value = call.request[48];
  if (!isMode) std::memcpy(&value, &call.request[48], sizeof value);
  const bool isInRange = value >= 0 && value <= (isMode ? 1 : 12000);
  assert(!call.isWrite() || (call.key != "FNum" && isInRange));
  machine().answer(call);
}

/// One service for all inputs, as for many connections of a daemon: each finds it at rest.
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

/// Holds the reply against its request.
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

/// Does with a datagram what a connection does; false when that must end.
bool receive(std::string_view datagram, FanHelperService& service) {
  const auto request = decodeRequest(datagram);
  if (!request) return false;
  // A request has one encoding. An absent key has another, and is read as the empty one.
  const auto* write = std::get_if<WriteFanKeyRequest>(&request->operation);
  const bool isKeyless = write != nullptr && write->key.empty();
  assert(isKeyless || encodeRequest(request->callNumber, request->operation) == datagram);
  deliver(*request, service, std::make_shared<CheckedSink>(*request));
  return true;
}

void serve(std::string_view input) {
  constexpr std::string_view separator = "\xFE\xFE";  // not in UTF-8, so not in a request's texts
  static const auto service = start();
  for (bool isOpen = true; isOpen && !input.empty();) {
    // Nothing runs ahead of a zero, so that requests can pile up.
    if (input[0] != 0) virtualdispatch::advance(std::chrono::seconds(input[0] & 0x1F));
    const std::string_view part = input.substr(1, input.find(separator, 1) - 1);
    input.remove_prefix(std::min(1 + part.size() + separator.size(), input.size()));
    // In memory of just its size, so that the sanitizer sees a byte too many being read.
    const std::vector<char> datagram(part.begin(), part.end());
    isOpen = receive({datagram.data(), datagram.size()}, *service);
  }
  virtualdispatch::advance(std::chrono::seconds(FanControlConstants::leaseSeconds));
  for (const char* mode : {"F0Md", "F1Md", "F2Md"}) assert(machine().keys.at(mode)[48] == 0);
  assert(virtualdispatch::deadlines().empty());
  assert(requestsUnderWay == 0);
  virtualdispatch::reset();  // long before the clock runs out
}

}  // namespace
}  // namespace quorvane::xpc

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  quorvane::xpc::serve(std::string(data, data + size));
  return 0;
}
