// The drivers of a Linux machine, in the order in which they are offered: for now the simulated SMC
// alone, when its file is there.
#include <unistd.h>

#include "Platform/Linux/Drivers/SMCFile.h"
#include "Platform/Linux/Drivers/SimulatedSMC.h"
#include "Platform/Linux/IOKitRegistry.h"
#include "Platform/SystemPath.h"

namespace quorvane::iokit {
namespace {

constexpr const char* smcClass = "AppleSMC";

/// A Mac has several services of the class, of which the helper may take one only.
Service decoy() {
  return {smcClass, "AppleSMCSensorEndpoint",
          [](std::uint32_t, std::unique_ptr<UserClient>&) { return kIOReturnNotPrivileged; }};
}

Service keysEndpoint(const std::string& smcFile) {
  return {smcClass, "AppleSMCKeysEndpoint",
          [smcFile](std::uint32_t type, std::unique_ptr<UserClient>& client) {
            if (type != 0) return kIOReturnBadArgument;
            client = std::make_unique<simulation::SimulatedSMC>(smcFile);
            return KERN_SUCCESS;
          }};
}

}  // namespace

std::vector<Service> publishedServices() {
  const std::string smcFile = systemPath(simulation::smcPath);
  if (access(smcFile.c_str(), F_OK) != 0) return {};
  return {decoy(), keysEndpoint(smcFile)};
}

}  // namespace quorvane::iokit
