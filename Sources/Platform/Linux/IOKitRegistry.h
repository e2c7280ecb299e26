// The registry behind the IOKit calls on Linux: services that drivers offer, and the user clients
// that they open. The link chooses the drivers: production links Drivers/Drivers.cpp, a test its
// own.
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

/// An open connection to a driver. Used by one thread at a time; destroyed by IOServiceClose.
class UserClient {
 public:
  virtual ~UserClient() = default;
  /// `*outputSize` is the capacity of `output` on entry, and the number of bytes written on return.
  virtual kern_return_t callStructMethod(std::uint32_t selector, const void* input,
                                         std::size_t inputSize, void* output,
                                         std::size_t* outputSize) = 0;
};

/// A service in the registry, described by its driver.
struct ServiceDescription {
  std::string className;
  /// If empty, IORegistryEntryGetName fails.
  std::optional<std::string> name;
  /// Opens a connection of that type. Returns KERN_SUCCESS and a client, or the error.
  std::function<kern_return_t(std::uint32_t type, std::unique_ptr<UserClient>& client)> open;
};

/// Returns the present services in the order of iteration. Link-time seam.
std::vector<ServiceDescription> publishedServices();

/// Returns the number of references to registry objects (services, iterators, open connections),
/// for tests.
std::size_t referenceCount();

}  // namespace quorvane::iokit
