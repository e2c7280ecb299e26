// A simulated machine as its SMC sees it: keys with their values, and fans that need time to reach
// a speed. A plain value for the driver and for smcsim. It has no clock, no thread and no file;
// calls take monotonicTime().
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Linux/Drivers/SMCCall.h"

namespace quorvane::simulation {

using smc::Data;
using smc::dataSizeMax;
using smc::typeFLT;
using smc::typeFPE2;

/// Returns the four characters; a blank or an unprintable one becomes `\xNN`.
std::string printable(FourCC code);

/// Returns two lower-case digits for each byte.
std::string hex(const std::uint8_t* bytes, std::size_t count);

/// The injected failure of a key's reads and writes: an SMC result or a kernel return code.
enum class Failure : std::uint8_t { none, result, call };

/// Laid out as in the file (see SMCFile.h).
struct Key {
  FourCC code = 0;         // 0: no key here
  std::uint32_t size = 0;  // at most dataSizeMax
  FourCC type = 0;
  std::uint8_t attributes = 0;
  Failure failure = Failure::none;
  std::uint16_t unused = 0;
  std::int32_t failureValue = 0;  // an SMC result byte, or a kernel return code
  /// For an actual-speed key: the speed at `changedAt`, an IEEE double. The key's own format would
  /// lose precision in many small steps of time.
  Data data{};
};
static_assert(sizeof(Key) == 52);

class SMCMachine {
 public:
  /// Far more than a Mac has, and few enough for distinct keys of four characters.
  static constexpr unsigned fanCountMax = 16;
  /// Five keys for each fan, and "FNum".
  static constexpr std::size_t slotCount = 1 + 5 * fanCountMax;
  /// How fast a fan gains or loses speed, in rpm per second.
  static constexpr double slope = 250;

  /// Returns a machine with "FNum" and fans 0 to `fanCount` - 1, at steady speed in automatic mode.
  /// `speedType` is typeFLT or typeFPE2. REQUIRES: fanCount <= fanCountMax.
  static SMCMachine fresh(unsigned fanCount, FourCC speedType);

  /// Returns null if there is no such key.
  const Key* find(FourCC code) const;
  Key* find(FourCC code);

  /// Returns the value of a key of this machine at a time, padded with zeros. Times are since boot.
  Data value(const Key& key, std::chrono::nanoseconds now) const;
  void setValue(Key& key, const Data& value, std::chrono::nanoseconds now);
  void remove(Key& key, std::chrono::nanoseconds now);

  /// Returns the key's value in rpm; nothing if it is missing, not of a speed type or not finite.
  std::optional<double> speed(FourCC code, std::chrono::nanoseconds now) const;

  /// Returns the speed that a fan heads for; any key of the fan identifies it. In mode 1 it is the
  /// target, clamped to the minimum and the maximum. In every other mode it is the firmware's
  /// choice, which for this cool machine is the minimum. A target written in another mode is kept,
  /// reads back as written, and takes effect in mode 1.
  double goal(FourCC fanKey) const;

  std::array<Key, slotCount> slots{};
  /// The time since boot of the speeds in the fans' keys. Not negative.
  std::chrono::nanoseconds changedAt{};

 private:
  double actual(const Key& key, std::chrono::nanoseconds now) const;
  void settle(std::chrono::nanoseconds now);
};

/// Returns the code of "F", the index and the suffix ("Ac", "Tg", "Mn", "Mx", "Md"); for fan 10
/// that of "10Ac" and so on.
FourCC fanKey(unsigned index, std::string_view suffix);

}  // namespace quorvane::simulation
