#include "Support/ScriptedSMC.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <utility>

#include "Platform/Linux/Drivers/LittleEndian.h"
#include "Platform/Linux/Drivers/SMCMachine.h"
#include "Platform/Linux/IOKitRegistry.h"

namespace quorvane {

using simulation::fourCharCode;
using simulation::loadLittleEndian;
using simulation::storeLittleEndian;

namespace {

std::string nameOf(std::uint32_t code) {
  std::string result;
  for (const int shift : {24, 16, 8, 0}) result += static_cast<char>(code >> shift);
  return result;
}

class Client final : public iokit::UserClient {
 public:
  Client() { ++machine().openConnections; }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  ~Client() override { --machine().openConnections; }

  kern_return_t callStructMethod(std::uint32_t selector, const void* input, std::size_t inputSize,
                                 void* output, std::size_t* outputSize) override {
    ScriptedSMC::Record request{}, reply{};
    if (selector != 2 || inputSize != request.size() || *outputSize != reply.size()) {
      return kIOReturnBadArgument;
    }
    std::memcpy(request.data(), input, request.size());
    const kern_return_t status = machine().structMethod(request, reply, *outputSize);
    if (status == KERN_SUCCESS) std::memcpy(output, reply.data(), reply.size());
    return status;
  }
};

}  // namespace

void ScriptedSMC::addKey(const std::string& name, std::string_view type, std::uint32_t size,
                         std::uint8_t attributes, Bytes bytes) {
  keys[fourCharCode(name)] = {size, fourCharCode(type), attributes, std::move(bytes)};
}

void ScriptedSMC::addFan(int index, std::string_view speedType) {
  std::string fan("F");
  fan += std::to_string(index);
  const auto addSpeed = [&](const char* suffix, std::uint16_t rpm) {
    Bytes bytes(4);
    storeLittleEndian(bytes.data(), std::bit_cast<std::uint32_t>(static_cast<float>(rpm)));
    if (speedType == "fpe2") {
      bytes = {static_cast<std::uint8_t>(rpm >> 6), static_cast<std::uint8_t>(rpm << 2)};
    }
    addKey(fan + suffix, speedType, static_cast<std::uint32_t>(bytes.size()), 0xC0, bytes);
  };
  addSpeed("Ac", 1400);
  addSpeed("Tg", 1350);
  addSpeed("Mn", 1200);
  addSpeed("Mx", 6000);
  addKey(fan + "Md", "ui8 ", 1, 0xC0, {0});
}

void ScriptedSMC::removeKey(const std::string& name) {
  keys.erase(fourCharCode(name));
}

ScriptedSMC::Bytes ScriptedSMC::value(const std::string& name) const {
  const auto found = keys.find(fourCharCode(name));
  return found != keys.end() ? found->second.bytes : Bytes{};
}

std::vector<ScriptedSMC::Call> ScriptedSMC::takeCalls() {
  return std::exchange(calls, {});
}

ScriptedSMC::Failure ScriptedSMC::failureFor(const Call& call) const {
  for (const Failure& failure : failures) {
    const Which& which = failure.which;
    if ((!which.key || fourCharCode(*which.key) == fourCharCode(call.key)) &&
        which.operation.value_or(call.operation) == call.operation) {
      return failure;
    }
  }
  return {{}, KERN_SUCCESS, 0, 80};
}

kern_return_t ScriptedSMC::structMethod(const Record& request, Record& reply,
                                        std::size_t& replySize) {
  const auto code = loadLittleEndian<std::uint32_t>(request.data());
  const Call call{static_cast<Operation>(request[42]), nameOf(code), request};
  calls.push_back(call);
  const Failure failure = failureFor(call);
  if (failure.status != KERN_SUCCESS) return failure.status;
  replySize = failure.replySize;
  const auto found = keys.find(code);
  reply[40] = found == keys.end() ? 132 : failure.result;
  if (found == keys.end()) return KERN_SUCCESS;

  Key& key = found->second;
  switch (call.operation) {
    case Operation::info:
      storeLittleEndian(&reply[28], key.size);
      storeLittleEndian(&reply[32], key.type);
      reply[36] = key.attributes;
      return KERN_SUCCESS;
    case Operation::read:
      std::copy_n(key.bytes.begin(), std::min<std::size_t>(key.bytes.size(), 32), &reply[48]);
      return KERN_SUCCESS;
    case Operation::write:
      if (failure.result == 0) {
        key.bytes.assign(
            &request[48],
            &request[48] + std::min(loadLittleEndian<std::uint32_t>(&request[28]), 32U));
      }
      return KERN_SUCCESS;
  }
  return kIOReturnBadArgument;
}

ScriptedSMC& machine() {
  static ScriptedSMC& instance = *new ScriptedSMC;  // Threads may use it while the process exits.
  return instance;
}

std::vector<iokit::Service> iokit::publishedServices() {
  std::vector<Service> services;
  for (const auto& serviceName : machine().serviceNames) {
    const auto open = [serviceName](std::uint32_t type, std::unique_ptr<UserClient>& client) {
      machine().openedServices.push_back(serviceName.value_or(""));
      if (machine().openStatus != KERN_SUCCESS) return machine().openStatus;
      if (type != 0) return kIOReturnBadArgument;
      client = std::make_unique<Client>();
      return KERN_SUCCESS;
    };
    services.push_back({"AppleSMC", serviceName, open});
  }
  return services;
}

}  // namespace quorvane
