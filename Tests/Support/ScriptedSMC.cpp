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
    ScriptedSMC::Record request, reply{};
    std::copy_n(static_cast<const std::uint8_t*>(input), request.size(), request.begin());
    const auto operation = static_cast<ScriptedSMC::Operation>(request[42]);
    if (request[42] == 6 && machine().beforeWrite) machine().beforeWrite();
    const std::string name(request.rend() - 4, request.rend());
    machine().calls.push_back({operation, name, request});
    const auto [status, result, replySize] = machine().failures[{name, operation}];
    const auto key = machine().keys.find(name);
    reply[40] = key == machine().keys.end() ? 132 : result;
    if (status == KERN_SUCCESS && reply[40] == 0) {
      if (request[42] == 6) std::copy_n(&request[48], 32, &key->second[48]);
      reply = key->second;
    }
    std::copy(reply.begin(), reply.end(), static_cast<std::uint8_t*>(output));
    *outputSize = replySize;
    return status;
  }
};

std::vector<iokit::Service> iokit::publishedServices() {
  std::vector<Service> services;
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
