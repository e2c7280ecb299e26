// The drivers of a Linux machine: the kernel's fans, else the simulated SMC if its file exists.
#include <unistd.h>

#include <functional>

#include "Platform/Linux/Drivers/HwmonSMC.h"
#include "Platform/Linux/Drivers/SMCFile.h"
#include "Platform/Linux/Drivers/SimulatedSMC.h"
#include "Platform/Linux/IOKitRegistry.h"
#include "Platform/SystemPath.h"

namespace quorvane::iokit {
namespace {

constexpr const char* smcClass = "AppleSMC";

/// A Mac has several services of the class. The helper may take only one of them.
ServiceDescription decoy() {
  return {smcClass, "AppleSMCSensorEndpoint",
          [](std::uint32_t, std::unique_ptr<UserClient>&) { return kIOReturnNotPrivileged; }};
}

ServiceDescription keysEndpoint(const std::function<std::unique_ptr<UserClient>()>& makeClient) {
  return {smcClass, "AppleSMCKeysEndpoint",
          [makeClient](std::uint32_t type, std::unique_ptr<UserClient>& client) {
            if (type != 0) return kIOReturnBadArgument;
            client = makeClient();
            return KERN_SUCCESS;
          }};
}

}  // namespace

std::vector<ServiceDescription> publishedServices() {
  if (hwmon::findDevice()) {
    return {decoy(),
            keysEndpoint([] { return std::make_unique<hwmon::HwmonSMC>(hwmon::findDevice); })};
  }
  const std::string smcFile = systemPath(simulation::smcPath);
  if (access(smcFile.c_str(), F_OK) != 0) return {};
  return {decoy(),
          keysEndpoint([smcFile] { return std::make_unique<simulation::SimulatedSMC>(smcFile); })};
}

}  // namespace quorvane::iokit
