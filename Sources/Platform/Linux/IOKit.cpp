// The IOKit calls over the registry. One table, under one lock, maps handles to objects; each
// handle is one reference. Drivers, clients and their destructors run outside the lock.
#include <IOKit/IOKitLib.h>

#include <deque>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <variant>

#include "Platform/Linux/IOKitRegistry.h"
#include "Platform/NoDestructor.h"

// Here a matching dictionary holds a class name only.
struct __CFDictionary {  // NOLINT(bugprone-reserved-identifier): the platform's own name
  std::string className;
};

namespace quorvane::iokit {
namespace {

using ServiceRef = std::shared_ptr<const ServiceDescription>;
using Iterator = std::deque<ServiceRef>;

struct OpenClient {
  std::mutex turn;
  std::unique_ptr<UserClient> client;
};
using OpenClientRef = std::shared_ptr<OpenClient>;

using Object = std::variant<ServiceRef, Iterator, OpenClientRef>;

struct Registry {
  std::mutex mutex;
  std::unordered_map<mach_port_t, Object> objects;
  mach_port_t lastHandle = 0;
};

Registry& registry() {
  static const NoDestructor<Registry> instance;
  return *instance;
}

mach_port_t addLocked(Registry& all, Object object) {
  // A released handle is reused only after all others, so that the use of a stale one fails.
  do {
    ++all.lastHandle;
  } while (all.lastHandle == 0 || all.objects.contains(all.lastHandle));
  all.objects.emplace(all.lastHandle, std::move(object));
  return all.lastHandle;
}

mach_port_t add(Object object) {
  Registry& all = registry();
  const std::lock_guard lock(all.mutex);
  return addLocked(all, std::move(object));
}

/// Returns the object of that kind behind the handle, or null.
template <class Ref>
Ref find(mach_port_t handle) {
  Registry& all = registry();
  const std::lock_guard lock(all.mutex);
  const auto found = all.objects.find(handle);
  if (found == all.objects.end()) return nullptr;
  const Ref* object = std::get_if<Ref>(&found->second);
  return object != nullptr ? *object : nullptr;
}

io_object_t nextService(io_iterator_t iterator) {
  Registry& all = registry();
  const std::lock_guard lock(all.mutex);
  const auto found = all.objects.find(iterator);
  if (found == all.objects.end()) return 0;
  Iterator* services = std::get_if<Iterator>(&found->second);
  if (services == nullptr || services->empty()) return 0;
  ServiceRef service = std::move(services->front());
  services->pop_front();
  return addLocked(all, std::move(service));
}

kern_return_t release(mach_port_t handle) {
  Registry& all = registry();
  decltype(all.objects)::node_type node;  // Outlives the lock: its client is destroyed outside.
  const std::lock_guard lock(all.mutex);
  node = all.objects.extract(handle);
  return node.empty() ? kIOReturnBadArgument : KERN_SUCCESS;
}

}  // namespace

std::size_t referenceCount() {
  Registry& all = registry();
  const std::lock_guard lock(all.mutex);
  return all.objects.size();
}

}  // namespace quorvane::iokit

using namespace quorvane::iokit;

extern "C" {

const mach_port_t kIOMainPortDefault = 0;

CFMutableDictionaryRef IOServiceMatching(const char* name) {
  return name != nullptr ? new __CFDictionary{name} : nullptr;
}

kern_return_t IOServiceGetMatchingServices(mach_port_t /*mainPort*/, CFDictionaryRef matching,
                                           io_iterator_t* existing) {
  const std::unique_ptr<const __CFDictionary> consumed(matching);
  if (consumed == nullptr || existing == nullptr) return kIOReturnBadArgument;
  Iterator services;
  for (ServiceDescription& service : publishedServices()) {
    if (service.className != consumed->className) continue;
    services.push_back(std::make_shared<const ServiceDescription>(std::move(service)));
  }
  *existing = add(std::move(services));
  return KERN_SUCCESS;
}

io_object_t IOIteratorNext(io_iterator_t iterator) {
  return nextService(iterator);
}

kern_return_t IORegistryEntryGetName(io_registry_entry_t entry, io_name_t name) {
  const ServiceRef service = find<ServiceRef>(entry);
  if (service == nullptr || name == nullptr) return kIOReturnBadArgument;
  if (!service->name) return kIOReturnError;
  const std::size_t length = service->name->copy(name, sizeof(io_name_t) - 1);
  name[length] = '\0';
  return KERN_SUCCESS;
}

kern_return_t IOServiceOpen(io_service_t service, task_port_t /*owningTask*/, uint32_t type,
                            io_connect_t* connect) {
  const ServiceRef found = find<ServiceRef>(service);
  if (found == nullptr || connect == nullptr) return kIOReturnBadArgument;
  const auto connection = std::make_shared<OpenClient>();
  const kern_return_t status = found->open(type, connection->client);
  if (status != KERN_SUCCESS) return status;
  if (connection->client == nullptr) return kIOReturnError;
  *connect = add(connection);
  return KERN_SUCCESS;
}

kern_return_t IOObjectRelease(io_object_t object) {
  return release(object);
}

kern_return_t IOServiceClose(io_connect_t connect) {
  if (find<OpenClientRef>(connect) == nullptr) return kIOReturnNotOpen;
  return release(connect);
}

kern_return_t IOConnectCallStructMethod(mach_port_t connection, uint32_t selector,
                                        const void* inputStruct, size_t inputStructCnt,
                                        void* outputStruct, size_t* outputStructCnt) {
  const OpenClientRef found = find<OpenClientRef>(connection);
  if (found == nullptr) return kIOReturnNotOpen;
  const std::lock_guard turn(found->turn);
  return found->client->callStructMethod(selector, inputStruct, inputStructCnt, outputStruct,
                                         outputStructCnt);
}

}  // extern "C"
