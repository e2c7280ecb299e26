// Fuzzes the server's end of a connection whose peer is admitted: datagrams in, replies out, with
// the real service on the virtual dispatch and the scripted SMC. An input is datagrams between
// separators; the byte in front of each says how many seconds pass before it comes.
#include <cassert>
#include <cstring>
#include <list>

#include "Platform/Linux/Channel/Exporter.h"
#include "Platform/Linux/Channel/Wire.h"
#include "QuorvaneFanHelper/FanHelperService.h"
#include "Support/ScriptedSMC.h"
#include "Support/TemporaryRoot.h"
#include "Support/VirtualDispatch.h"

namespace quorvane::xpc {
namespace {

/// One service for many inputs, as for many connections of a daemon: each finds it at rest. A new
/// one comes long before the virtual clock runs out.
FanHelperService& service() {
  static std::shared_ptr<FanHelperService> current;
  if (current && virtualdispatch::now() < std::chrono::hours(24 * 365)) return *current;
  virtualdispatch::reset();
  machine().setFanCount(3);
  for (const std::string fan : {"F0", "F1", "F2"}) {
    machine().addKey(fan + "Tg", "flt ", 4, 0xC0);
    machine().addKey(fan + "Md", "ui8 ", 1, 0xC0);
  }
  machine().fate = [](const ScriptedSMC::Call& call) {
    const bool isRefused = call.key == "F2Tg" && call.operation == ScriptedSMC::Operation::write;
    return ScriptedSMC::Failure{.result = std::uint8_t(isRefused ? 134 : 0)};
  };
  current = std::make_shared<FanHelperService>();
  current->startup();
  return *current;
}

/// What is written, to one of the twenty keys, is in the key's range.
void checkCall(const ScriptedSMC::Call& call) {
  if (call.operation != ScriptedSMC::Operation::write) return;
  float value = call.request[48];
  if (!call.isFanMode()) std::memcpy(&value, &call.request[48], sizeof value);
  assert(call.isFanKey() && value >= 0 && value <= (call.isFanMode() ? 1 : 12000));
}

/// Holds the reply against its request, and counts it.
struct CheckedAnswer final : Answer {
  CheckedAnswer(const std::optional<Request>& asked, std::size_t size, int& counted)
      : request(asked), requestSize(size), count(counted) {}
  void give(std::string_view bytes) override {
    assert(request && ++count == 1);
    const auto reply = decodeReply(bytes, request->operation->reply);
    assert(reply && reply->callNumber == request->callNumber);
    assert(bytes.size() <= requestSize + maxReplySize - maxRequestSize);
  }
  const std::optional<Request> request;
  const std::size_t requestSize;
  int& count;
};

/// Does with a datagram what a connection does; false when that must end. Adds the number of
/// replies to a request.
bool receive(std::string_view datagram, FanHelperService& helper, std::list<int>& replies) {
  const auto request = decodeRequest(datagram, fanControlOperations);
  replies.push_back(request ? 0 : 1);  // what is no request is owed none
  const auto answer = std::make_shared<CheckedAnswer>(request, datagram.size(), replies.back());
  const bool isDelivered = deliver(datagram, {fanControlOperations}, helper, answer);
  assert(isDelivered == request.has_value());
  if (!isDelivered) return false;
  // A request has one encoding, but that an absent key is read as the empty one.
  const auto& [number, operation, arguments] = *request;
  const bool hasNoKey = !arguments.empty() && arguments[0] == Value(std::string());
  assert(hasNoKey || encodeRequest(number, operation->selector, arguments) == datagram);
  return true;
}

void serve(std::string_view input) {
  constexpr std::string_view separator = "\xFE\xFE";  // not in UTF-8, so not in a request's texts
  FanHelperService& helper = service();
  std::list<int> replies;
  for (bool isOpen = true; isOpen && !input.empty();) {
    // Nothing runs ahead of a zero, so that requests can pile up.
    if (input[0] != 0) virtualdispatch::advance(std::chrono::seconds(input[0] & 0x1F));
    const std::string_view part = input.substr(1, input.find(separator, 1) - 1);
    input.remove_prefix(std::min(1 + part.size() + separator.size(), input.size()));
    // In memory of just its size, so that the sanitizer sees a byte too many being read.
    const std::vector<char> datagram(part.begin(), part.end());
    isOpen = receive({datagram.data(), datagram.size()}, helper, replies);
  }
  virtualdispatch::advance(std::chrono::seconds(FanControlConstants::leaseSeconds));
  for (const int count : replies) assert(count == 1);
  for (const auto& call : machine().takeCalls()) checkCall(call);
  for (const char* mode : {"F0Md", "F1Md", "F2Md"}) assert(machine().keys.at(mode)[48] == 0);
  assert(virtualdispatch::deadlines().empty());
}

}  // namespace
}  // namespace quorvane::xpc

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const quorvane::TemporaryRoot root;
  root.write(quorvane::FanControlConstants::auditLogPath, "");
  quorvane::xpc::serve(std::string(data, data + size));
  return 0;
}
