// The only way to the System Management Controller: one user-client connection to the AppleSMC
// driver, over which 80-byte parameter records are exchanged. Has exactly one owner and no lock:
// the service uses its own from its queue only, probe mode another one from the main thread, and
// the last resort a third from the thread that failed.
#pragma once

#include <IOKit/IOKitLib.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Platform/FourCC.h"
#include "QuorvaneFanHelper/SMCError.h"

namespace quorvane {

/// The SMC's description of one key.
struct KeyInfo {
  /// Length of the value, in bytes.
  std::uint32_t dataSize = 0;
  /// Comparable with HelperSMC's type constants.
  FourCC dataType = 0;
  /// Never interpreted, only quoted back.
  std::uint8_t attributes = 0;
};

class HelperSMC {
 public:
  static constexpr FourCC typeFLT = fourCC("flt ");
  static constexpr FourCC typeFPE2 = fourCC("fpe2");
  static constexpr FourCC typeFP2E = fourCC("fp2e");
  static constexpr FourCC typeUI16 = fourCC("ui16");
  static constexpr FourCC typeUI8 = fourCC("ui8 ");
  static constexpr FourCC typeSP78 = fourCC("sp78");

  static constexpr FourCC keyCode(std::string_view key) { return fourCC(key); }

  /// The number in a key's bytes, or nothing when they are too few or of a type that holds none.
  /// `size` is the key's dataSize, which decides how a type that is not known is read.
  static std::optional<double> decode(std::span<const std::uint8_t> bytes, FourCC type,
                                      std::int64_t size);

  /// The bytes for a number, which is brought into the range of the type; nothing for a type that
  /// is not known or a size too small for it. Their count depends on the type alone and may be less
  /// than `size`.
  static std::optional<std::vector<std::uint8_t>> encode(double value, FourCC type,
                                                         std::int64_t size);

  HelperSMC() = default;
  // The connection is not closed here: the service's lasts until the process ends.
  ~HelperSMC() = default;
  HelperSMC(const HelperSMC&) = delete;
  HelperSMC& operator=(const HelperSMC&) = delete;

  /// Opens the driver's keys endpoint. Throws SMCError::notOpen and changes nothing when there is
  /// none.
  void connect();
  void close();

  /// Asks the SMC until it has answered once, and remembers that answer.
  std::optional<KeyInfo> keyInfo(FourCC code);

  /// The first dataSize bytes of the key's value, at most 32; none for a key of size 0.
  std::optional<std::vector<std::uint8_t>> readRaw(std::string_view key);

  /// The first byte of the key's value, whatever its type.
  std::optional<std::uint8_t> readByte(std::string_view key);

  /// Writes the byte as a big-endian integer of the key's size. Throws SMCError.
  void writeByte(std::string_view key, std::uint8_t value);

  /// Writes a number in the key's own format. Throws SMCError.
  void writeRPM(std::string_view key, double value);

 private:
  static constexpr std::size_t recordSize = 80;
  using Record = std::array<std::uint8_t, recordSize>;

  static std::optional<io_connect_t> open();
  static Record makeRecord(FourCC code, std::uint8_t command);
  static Record makeRecord(FourCC code, const KeyInfo& info, std::uint8_t command);
  static void store(Record& record, std::uint32_t value, std::size_t offset);

  /// Hands the request to the driver. Yields what the call returned, the reply, and the size that
  /// is said to have.
  kern_return_t submit(const Record& request, Record& reply, std::size_t& replySize) const;
  std::optional<Record> call(const Record& request) const;
  void write(FourCC code, const KeyInfo& info, std::span<const std::uint8_t> payload) const;

  io_connect_t connection = 0;
  bool isOpen = false;
  /// Answers of successful lookups only. Bounded by the keys that the program itself names.
  std::unordered_map<FourCC, KeyInfo> keyInfoCache;
};

}  // namespace quorvane
