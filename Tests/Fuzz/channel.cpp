// Fuzzes the server's end of a connection whose peer is admitted: datagrams in, replies out, with
// the real service on the virtual dispatch and the scripted SMC. An input is datagrams between
// separators; the byte in front of each says how many seconds pass before it comes.
#include <cassert>
#include <cstring>
#include <list>

#include "Platform/Linux/XPC/Exporter.h"
#include "Platform/Linux/XPC/Wire.h"
#include "QuorvaneFanHelper/FanHelperService.h"
#include "Support/FakeSystem.h"
#include "Support/ScriptedSMC.h"
#include "Support/TemporaryRoot.h"
#include "Support/VirtualDispatch.h"

namespace quorvane::xpc {
namespace {

using Operation = ScriptedSMC::Operation;

struct Exchange {
  std::optional<Request> request;
  int replies = 0;
};

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
    const bool isRefused = call.key == "F2Tg" && call.operation == Operation::write;
    return ScriptedSMC::Failure{.result = std::uint8_t(isRefused ? 134 : 0)};
  };
  current = std::make_shared<FanHelperService>();
  current->startup();
  return *current;
}

/// What is read is the fan count or one of the twenty keys; what is written, to one of them, is
/// automatic mode, or in the range of the key and asked for.
void checkCall(const ScriptedSMC::Call& call, const std::list<Exchange>& exchanges) {
  const std::string& key = call.key;
  const bool isWrite = call.operation == Operation::write, isMode = key.ends_with("Md");
  if (key == "FNum" && !isWrite) return;
  assert(key[0] == 'F' && key[1] >= '0' && key[1] <= '9' && (isMode || key.ends_with("Tg")));
  float value = call.request[48];
  if (!isMode) std::memcpy(&value, &call.request[48], sizeof value);
  if (!isWrite || (isMode && value == 0)) return;
  assert(value >= 0 && value <= (isMode ? 1 : 12000));
  assert(std::ranges::any_of(exchanges, [&](const Exchange& each) {
    if (!each.request) return false;
    const std::vector<Value>& asked = each.request->arguments;
    return asked.size() == 3 && asked[0] == Value(key) && asked[1] == Value(std::int64_t(value)) &&
           (!isMode || asked[2] == Value(false));
  }));
}

/// Holds the reply against its request.
struct CheckedAnswer final : Answer {
  CheckedAnswer(Exchange& of, std::size_t size) : exchange(of), requestSize(size) {}
  void give(std::string_view bytes) override {
    assert(exchange.request && ++exchange.replies == 1);
    const auto reply = decodeReply(bytes, exchange.request->operation->reply);
    assert(reply && reply->callNumber == exchange.request->callNumber);
    assert(bytes.size() <= requestSize + maxReplySize - maxRequestSize);
  }
  Exchange& exchange;
  const std::size_t requestSize;
};

/// Does with a datagram what a connection does. False when that must end.
bool receive(std::string_view datagram, FanHelperService& helper, std::list<Exchange>& exchanges) {
  const auto request = decodeRequest(datagram, fanControlOperations);
  const auto answer =
      std::make_shared<CheckedAnswer>(exchanges.emplace_back(Exchange{request}), datagram.size());
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
  std::list<Exchange> exchanges;
  for (bool isOpen = true; isOpen && !input.empty();) {
    // Nothing runs ahead of a zero, so that requests can pile up.
    if (input[0] != 0) virtualdispatch::advance(std::chrono::seconds(input[0] & 0x1F));
    const std::string_view part = input.substr(1, input.find(separator, 1) - 1);
    input.remove_prefix(std::min(1 + part.size() + separator.size(), input.size()));
    // In memory of just its size, so that the sanitizer sees a byte too many being read.
    const std::vector<char> datagram(part.begin(), part.end());
    isOpen = receive({datagram.data(), datagram.size()}, helper, exchanges);
  }
  virtualdispatch::advance(std::chrono::seconds(FanControlConstants::leaseSeconds));
  for (const Exchange& each : exchanges) assert(each.replies == (each.request ? 1 : 0));
  for (const auto& call : machine().takeCalls()) checkCall(call, exchanges);
  for (const char* mode : {"F0Md", "F1Md", "F2Md"}) assert(machine().keys.at(mode)[48] == 0);
  assert(virtualdispatch::deadlines().empty());
}

}  // namespace
}  // namespace quorvane::xpc

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const quorvane::TemporaryRoot root;
  root.write(quorvane::FanControlConstants::auditLogPath, "");
  quorvane::fakeSystem().log.clear();
  quorvane::xpc::serve(std::string(data, data + size));
  return 0;
}
