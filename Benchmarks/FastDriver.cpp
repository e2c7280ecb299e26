// A driver that only remembers, in the place of Drivers.cpp: what a call costs without it is the
// helper's own. Keys are those of ten fans, without a check of what a record quotes.
#include <array>
#include <cstdint>
#include <cstring>

#include "Platform/Linux/IOKitRegistry.h"

namespace quorvane::iokit {
namespace {

class FastDriver final : public UserClient {
 public:
  kern_return_t callStructMethod(std::uint32_t /*selector*/, const void* input,
                                 std::size_t /*inputSize*/, void* output,
                                 std::size_t* /*outputSize*/) override {
    // The fields of the record: key at 0, size at 28, type at 32, command at 42, data at 48.
    std::array<std::uint8_t, 80> record{};
    std::memcpy(record.data(), input, record.size());
    const std::size_t fan = record[2] - std::size_t{'0'};
    const bool isTarget = record[0] == 'g';
    auto& value = isTarget && fan < targets.size() ? targets[fan] : other;
    switch (record[42]) {
      case 6:
        std::memcpy(value.data(), &record[48], value.size());
        break;
      case 9:
        record[28] = isTarget ? 4 : 1;
        std::memcpy(&record[32], isTarget ? " tlf" : " 8iu", 4);
        break;
      default:
        std::memcpy(&record[48], value.data(), value.size());
    }
    std::memcpy(output, record.data(), record.size());
    return KERN_SUCCESS;
  }

 private:
  std::array<std::array<std::uint8_t, 4>, 10> targets{};
  std::array<std::uint8_t, 4> other{10};  // the number of fans, and then some mode
};

}  // namespace

std::vector<Service> publishedServices() {
  return {
      {"AppleSMC", "AppleSMCKeysEndpoint", [](std::uint32_t, std::unique_ptr<UserClient>& client) {
         client = std::make_unique<FastDriver>();
         return KERN_SUCCESS;
       }}};
}

}  // namespace quorvane::iokit
