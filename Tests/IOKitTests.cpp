#include <IOKit/IOKitLib.h>
#include <gtest/gtest.h>

#include <cstring>

#include "Platform/Linux/IOKitRegistry.h"
#include "Support/ScriptedSMC.h"

namespace quorvane {
namespace {

class IOKit : public testing::Test {
 protected:
  IOKit() { machine().reset(); }
  ~IOKit() override { EXPECT_EQ(iokit::referenceCount(), 0U) << "a reference leaked"; }

  static io_iterator_t services(const char* className) {
    io_iterator_t iterator = 0;
    EXPECT_EQ(
        IOServiceGetMatchingServices(kIOMainPortDefault, IOServiceMatching(className), &iterator),
        KERN_SUCCESS);
    return iterator;
  }

  static io_service_t onlyService() {
    const io_iterator_t iterator = services("AppleSMC");
    const io_service_t service = IOIteratorNext(iterator);
    EXPECT_EQ(IOObjectRelease(iterator), KERN_SUCCESS);
    return service;
  }
};

TEST_F(IOKit, IteratesOverTheServicesOfAClassInOrder) {
  machine().serviceNames = {std::string(200, 'n'), std::nullopt, "AppleSMCKeysEndpoint"};
  const io_iterator_t iterator = services("AppleSMC");
  std::vector<std::string> names;
  while (const io_service_t service = IOIteratorNext(iterator)) {
    EXPECT_EQ(iokit::referenceCount(), 2U);
    io_name_t name;
    std::memset(name, 'x', sizeof name);
    const bool readable = IORegistryEntryGetName(service, name) == KERN_SUCCESS;
    names.emplace_back(readable ? name : "unreadable");
    EXPECT_EQ(IOObjectRelease(service), KERN_SUCCESS);
    EXPECT_EQ(IOObjectRelease(service), kIOReturnBadArgument) << "released twice";
  }
  EXPECT_EQ(names, (std::vector<std::string>{std::string(127, 'n'), "unreadable",
                                             "AppleSMCKeysEndpoint"}));
  EXPECT_EQ(IOObjectRelease(iterator), KERN_SUCCESS);

  const io_iterator_t none = services("IONetworkInterface");
  EXPECT_EQ(IOIteratorNext(none), 0U);
  EXPECT_EQ(IOObjectRelease(none), KERN_SUCCESS);
}

TEST_F(IOKit, AConnectionLivesUntilItIsClosed) {
  machine().serviceNames = {"AppleSMCKeysEndpoint"};
  const io_service_t service = onlyService();
  io_connect_t connection = 0;
  machine().openStatus = kIOReturnNotPrivileged;
  EXPECT_EQ(IOServiceOpen(service, mach_task_self(), 0, &connection), kIOReturnNotPrivileged);
  EXPECT_EQ(connection, 0U);
  machine().openStatus = KERN_SUCCESS;
  ASSERT_EQ(IOServiceOpen(service, mach_task_self(), 0, &connection), KERN_SUCCESS);
  EXPECT_EQ(IOObjectRelease(service), KERN_SUCCESS);
  EXPECT_EQ(machine().openConnections, 1) << "outlives its service";

  EXPECT_EQ(IOServiceClose(connection), KERN_SUCCESS);
  EXPECT_EQ(machine().openConnections, 0);
  EXPECT_EQ(IOServiceClose(connection), kIOReturnNotOpen);
}

TEST_F(IOKit, ABadHandleIsAnError) {
  const io_service_t service = onlyService();
  io_name_t name;
  io_connect_t connection = 0;
  for (const io_object_t bad : {io_object_t{0}, io_object_t{0xFFFFFFFF}}) {
    EXPECT_EQ(IOIteratorNext(bad), 0U);
    EXPECT_EQ(IORegistryEntryGetName(bad, name), kIOReturnBadArgument);
    EXPECT_EQ(IOServiceOpen(bad, mach_task_self(), 0, &connection), kIOReturnBadArgument);
    EXPECT_EQ(IOObjectRelease(bad), kIOReturnBadArgument);
  }
  for (const io_object_t bad : {io_object_t{0}, service}) {
    EXPECT_EQ(IOServiceClose(bad), kIOReturnNotOpen);
    EXPECT_EQ(IOConnectCallStructMethod(bad, 2, nullptr, 0, nullptr, nullptr), kIOReturnNotOpen);
  }
  EXPECT_EQ(IOIteratorNext(service), 0U) << "not an iterator";
  EXPECT_EQ(IOServiceGetMatchingServices(0, nullptr, &connection), kIOReturnBadArgument);
  EXPECT_EQ(IOObjectRelease(service), KERN_SUCCESS);
}

}  // namespace
}  // namespace quorvane
