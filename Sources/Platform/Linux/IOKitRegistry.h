// What stands behind the IOKit calls on Linux: services that drivers offer, and the user clients
// that they open. Which drivers there are is decided at link time: production links
// Drivers/Drivers.cpp, a test its own.
#pragma once

#include <IOKit/IOKitLib.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace quorvane::iokit {

/// One open connection to a driver. Calls come from one thread at a time; destroyed by
/// IOServiceClose.
class UserClient {
 public:
  virtual ~UserClient() = default;
  /// `*outputSize` holds the room at `output` on entry and the bytes put there on return.
  virtual kern_return_t callStructMethod(std::uint32_t selector, const void* input,
                                         std::size_t inputSize, void* output,
                                         std::size_t* outputSize) = 0;
};

/// A service in the registry, as its driver describes it.
struct ServiceDescription {
  std::string className;
  /// Nothing makes IORegistryEntryGetName fail.
  std::optional<std::string> name;
  /// Answers IOServiceOpen for a connection type: KERN_SUCCESS with a client, or the error.
  std::function<kern_return_t(std::uint32_t type, std::unique_ptr<UserClient>& client)> open;
};

/// The services there are now, in the order in which an iterator hands them out. Link-time seam.
std::vector<ServiceDescription> publishedServices();

/// How many references to registry objects (services, iterators, open connections) are held; for
/// tests.
std::size_t referenceCount();

}  // namespace quorvane::iokit
