#include "Support/ScriptedSMC.h"

#include "Platform/Linux/IOKitRegistry.h"

namespace quorvane {

ScriptedSMC& machine() {
  static ScriptedSMC instance;
  return instance;
}

struct ScriptedClient final : iokit::UserClient {
  kern_return_t callStructMethod(std::uint32_t, const void* input, std::size_t, void* output,
                                 std::size_t* outputSize) override {
    ScriptedSMC& smc = machine();
    ScriptedSMC::Call call{};
    std::copy_n(static_cast<const std::uint8_t*>(input), call.request.size(), &call.request[0]);
    call.operation = static_cast<ScriptedSMC::Operation>(call.request[42]);
    call.key.assign(call.request.rend() - 4, call.request.rend());
    const auto failure = smc.fate ? smc.fate(call) : ScriptedSMC::Failure{};
    const auto key = smc.keys.find(call.key);
    const bool known = key != smc.keys.end();
    call.status = failure.status;
    call.replySize = failure.replySize;
    call.reply[40] = known ? failure.result : 132;
    const bool good = call.status == KERN_SUCCESS && call.reply[40] == 0;
    call.applied = call.request[42] == 6 && known && (good || failure.applied);
    if (call.applied) std::copy_n(&call.request[48], 32, &key->second[48]);
    if (good) call.reply = key->second;
    std::copy(call.reply.begin(), call.reply.end(), static_cast<std::uint8_t*>(output));
    *outputSize = call.replySize;
    smc.calls.push_back(call);
    if (smc.ended) smc.ended(call);
    return call.status;
  }
};

std::vector<iokit::ServiceDescription> iokit::publishedServices() {
  std::vector<ServiceDescription> services;
  for (const std::string& name : machine().serviceNames) {
    const auto open = [name](std::uint32_t, std::unique_ptr<UserClient>& client) {
      client = std::make_unique<ScriptedClient>();
      return name == "AppleSMCKeysEndpoint" ? machine().openStatus : kIOReturnNotPrivileged;
    };
    services.push_back({"AppleSMC", name, open});
    if (name.empty()) services.back().name = std::nullopt;
  }
  return services;
}

}  // namespace quorvane
