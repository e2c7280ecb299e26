// The only way to the System Management Controller: one user-client connection to the AppleSMC
// driver, which exchanges 80-byte parameter records. Has one owner and no lock. The service uses
// its own on its queue, probe mode and fanctl use theirs on the main thread, and the last resort
// uses one on the thread that failed.
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
  /// Length of the value in bytes.
  std::uint32_t dataSize = 0;
  /// Comparable with HelperSMC's type constants.
  FourCC dataType = 0;
  /// Never interpreted, only sent back.
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

  /// Returns the number in a key's bytes, or nothing if they are too few. `size`, the key's
  /// dataSize, decides how an unknown type is read.
  static std::optional<double> decode(std::span<const std::uint8_t> bytes, FourCC type,
                                      std::int64_t size);

  /// Returns the bytes for a number, clamped to the range of the type. Returns nothing for an
  /// unknown type, or if `size` is too small for it; for fpe2 and fp2e `size` is ignored. The
  /// number of bytes depends on the type alone, and may differ from `size`.
  static std::optional<std::vector<std::uint8_t>> encode(double value, FourCC type,
                                                         std::int64_t size);

  HelperSMC() = default;
  // Does not close the connection: the service's lasts until the process ends.
  ~HelperSMC() = default;
  HelperSMC(const HelperSMC&) = delete;
  HelperSMC& operator=(const HelperSMC&) = delete;

  /// Opens the driver's keys endpoint. If that fails, throws SMCError::notOpen and changes nothing.
  void connect();
  void close();

  /// Returns the SMC's description of the key. Caches the first one; a failure is not cached.
  std::optional<KeyInfo> keyInfo(FourCC code);

  /// Returns the first dataSize bytes of the key's value, at most 32; empty for a key of size 0.
  std::optional<std::vector<std::uint8_t>> readRaw(std::string_view key);

  /// Returns the first byte of the key's value, whatever its type.
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

  /// Sends the request to the driver. Returns the call's result, and sets the reply and the size
  /// that the driver states for it.
  kern_return_t submit(const Record& request, Record& reply, std::size_t& replySize) const;
  std::optional<Record> call(const Record& request) const;
  void write(FourCC code, const KeyInfo& info, std::span<const std::uint8_t> payload) const;

  io_connect_t connection = 0;
  bool isOpen = false;
  /// Successful lookups only. Bounded by the keys that the program itself names.
  std::unordered_map<FourCC, KeyInfo> keyInfoCache;
};

}  // namespace quorvane
