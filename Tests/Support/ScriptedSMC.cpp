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
    ScriptedSMC::Call call{};
    std::copy_n(static_cast<const std::uint8_t*>(input), call.request.size(), &call.request[0]);
    call.key.assign(call.request.rend() - 4, call.request.rend());
    machine().serve(call);
    std::copy(call.reply.begin(), call.reply.end(), static_cast<std::uint8_t*>(output));
    *outputSize = call.replySize;
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
    services.push_back({"AppleSMC", name.empty() ? std::nullopt : std::optional(name), open});
  }
  return services;
}

}  // namespace quorvane
