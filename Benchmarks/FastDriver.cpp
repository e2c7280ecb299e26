// A driver that only remembers, in the place of Drivers.cpp: what a call costs without it is the
// helper's own. All of its ten fans are one, and what a record quotes is not checked.
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
    // A key's last letter comes first: F0Tg, F0Md, FNum.
    const bool isTarget = record[0] == 'g';
    auto& value = isTarget ? target : record[0] == 'd' ? mode : fanCount;
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
  std::array<std::uint8_t, 4> target{};
  std::array<std::uint8_t, 4> mode{};
  std::array<std::uint8_t, 4> fanCount{10};
};

}  // namespace

std::vector<ServiceDescription> publishedServices() {
  return {
      {"AppleSMC", "AppleSMCKeysEndpoint", [](std::uint32_t, std::unique_ptr<UserClient>& client) {
         client = std::make_unique<FastDriver>();
         return KERN_SUCCESS;
       }}};
}

}  // namespace quorvane::iokit
