// A driver without state that replaces Drivers.cpp: the cost of a call with it is the helper's own.
// It reports ten fans, and every write succeeds.
#include <cstdint>
#include <cstring>

#include "Platform/Linux/IOKitRegistry.h"

namespace quorvane::iokit {
namespace {

struct FastDriver final : UserClient {
  kern_return_t callStructMethod(std::uint32_t /*selector*/, const void* input,
                                 std::size_t inputSize, void* output,
                                 std::size_t* /*outputSize*/) override {
    std::memcpy(output, input, inputSize);
    // The layout: key at 0, last letter first; size at 28, type at 32, command at 42, data at 48.
    auto* const record = static_cast<std::uint8_t*>(output);
    const bool isTarget = record[0] == 'g';
    if (record[42] == 5) record[48] = 10;
    if (record[42] == 9) {
      record[28] = isTarget ? 4 : 1;
      std::memcpy(&record[32], isTarget ? " tlf" : " 8iu", 4);
    }
    return KERN_SUCCESS;
  }
};

}  // namespace

std::vector<ServiceDescription> publishedServices() {
  const auto open = [](std::uint32_t, std::unique_ptr<UserClient>& client) {
    client = std::make_unique<FastDriver>();
    return KERN_SUCCESS;
  };
  return {{"AppleSMC", "AppleSMCKeysEndpoint", open}};
}

}  // namespace quorvane::iokit
