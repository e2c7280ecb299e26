// The struct call of the AppleSMC driver, common to all drivers: 80-byte records in and out at
// selector 2, with codes for keys and types. Plain values and pure functions, for any thread.
#pragma once

#include <IOKit/IOKitLib.h>

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "Platform/FourCC.h"

namespace quorvane::smc {

inline constexpr FourCC typeFLT = fourCC("flt ");   // IEEE single, little-endian
inline constexpr FourCC typeFPE2 = fourCC("fpe2");  // quarters, 16 bits, big-endian
inline constexpr FourCC typeUI8 = fourCC("ui8 ");

/// The attribute bits that the drivers check, by our choice; a key with both has 192.
inline constexpr std::uint8_t attributeReadable = 0x80;
inline constexpr std::uint8_t attributeWritable = 0x40;

/// The data bytes of a record; no key here has more.
inline constexpr std::size_t dataSizeMax = 32;
using Data = std::array<std::uint8_t, dataSizeMax>;

struct KeyDescription {
  std::uint32_t size = 0;
  FourCC type = 0;
  std::uint8_t attributes = 0;
};

constexpr KeyDescription byteKey(std::uint8_t attributes) {
  return {1, typeUI8, attributes};
}
/// `type` is typeFLT or typeFPE2.
constexpr KeyDescription speedKey(FourCC type, std::uint8_t attributes) {
  return {type == typeFLT ? 4U : 2U, type, attributes};
}

/// Returns the speed in a key's bytes; nothing if it is not finite. `type` is typeFLT or typeFPE2.
std::optional<double> decodeSpeed(FourCC type, const Data& data);
/// REQUIRES: the speed is within the range of a float, or NaN. typeFPE2 saturates.
Data encodeSpeed(FourCC type, double speed);

enum class Command : std::uint8_t { read = 5, write = 6, info = 9 };

// SMC results of the hardware; resultMismatch is our choice. 0 is success.
inline constexpr std::uint8_t resultKeyMissing = 132;
inline constexpr std::uint8_t resultNotReadable = 133;
inline constexpr std::uint8_t resultNotWritable = 134;
inline constexpr std::uint8_t resultMismatch = 135;

/// The parameter record. Unused fields are ignored in a request and zero in a reply.
struct Record {
  FourCC key = 0;
  std::array<std::uint8_t, 24> unused1{};
  std::uint32_t size = 0;
  FourCC type = 0;
  std::uint8_t attributes = 0;
  std::array<std::uint8_t, 3> unused2{};
  std::uint8_t result = 0;
  std::uint8_t unused3 = 0;
  Command command{};
  std::array<std::uint8_t, 5> unused4{};
  Data data{};
};
static_assert(sizeof(Record) == 80 && std::endian::native == std::endian::little);

/// The status that a call returns, and the record for KERN_SUCCESS.
struct CallResult {
  kern_return_t status = KERN_SUCCESS;
  Record reply;

  [[nodiscard]] bool isSuccess() const { return status == KERN_SUCCESS && reply.result == 0; }
};

CallResult withStatus(kern_return_t status);
CallResult withResult(std::uint8_t result);
CallResult withInfo(const KeyDescription& info);
CallResult withData(const Data& data);

/// Returns the SMC result that refuses this read or write; 0 if allowed. Its size and type must be
/// the key's, and the key's attributes must permit it.
std::uint8_t refusal(const Record& request, const KeyDescription& key);

/// Returns the record of a struct call; nothing if selector, sizes or command are not the driver's.
/// The call then fails with kIOReturnBadArgument. The arguments are those of
/// iokit::UserClient::callStructMethod.
std::optional<Record> receive(std::uint32_t selector, const void* input, std::size_t inputSize,
                              const void* output, const std::size_t* outputSize);

/// Copies the result out and returns its status. REQUIRES: receive() has checked the room.
kern_return_t send(const CallResult& answer, void* output, std::size_t* outputSize);

}  // namespace quorvane::smc
