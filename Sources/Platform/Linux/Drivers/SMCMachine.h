// A simulated machine as its SMC sees it: keys with their values, and fans that need time to follow
// what is asked of them. A plain value, the same for the driver and for smcsim; it has no clock, no
// thread and no file, and is told monotonicTime() with each call.
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

/// The four characters; one that shows nothing on paper, blanks included, as `\xNN`.
std::string printable(FourCC code);

/// Two lower-case digits a byte.
std::string hex(const std::uint8_t* bytes, std::size_t count);

/// What reads and writes of a key answer instead of being done.
enum class Failure : std::uint8_t { none, result, call };

/// Laid out as in the file (see SMCFile.h).
struct Key {
  FourCC code = 0;         // 0: there is no key here
  std::uint32_t size = 0;  // at most dataSizeMax
  FourCC type = 0;
  std::uint8_t attributes = 0;
  Failure failure = Failure::none;
  std::uint16_t unused = 0;
  std::int32_t failureValue = 0;  // an SMC result byte, or a kernel return code
  /// Of an actual-speed key: the speed at `changedAt`, an IEEE double, so that many small steps of
  /// time lose nothing to the key's own format.
  Data data{};
};
static_assert(sizeof(Key) == 52);

class SMCMachine {
 public:
  /// Far more than a Mac has, and few enough that the four characters of their keys all differ.
  static constexpr unsigned fanCountMax = 16;
  /// Five keys a fan, and "FNum".
  static constexpr std::size_t slotCount = 1 + 5 * fanCountMax;
  /// How fast a fan gains or loses speed, in rpm a second.
  static constexpr double slope = 250;

  /// Fans 0 to `fanCount` - 1, at rest in automatic mode, and "FNum". `speedType` is typeFLT or
  /// typeFPE2. REQUIRES: fanCount <= fanCountMax.
  static SMCMachine fresh(unsigned fanCount, FourCC speedType);

  /// Null when there is no such key.
  const Key* find(FourCC code) const;
  Key* find(FourCC code);

  /// The value of a key of this machine at a time, zeros behind its size. Times are since boot.
  Data value(const Key& key, std::chrono::nanoseconds now) const;
  void setValue(Key& key, const Data& value, std::chrono::nanoseconds now);
  void remove(Key& key, std::chrono::nanoseconds now);

  /// The key's value as a number of rpm; nothing when it is missing, not of a speed type or not
  /// finite.
  std::optional<double> speed(FourCC code, std::chrono::nanoseconds now) const;

  /// The speed that a fan heads for; any key of the fan names it. In mode 1 it is the target, no
  /// lower than the minimum and no higher than the maximum; in every other mode it is what the
  /// firmware wants, which for this cool machine is the minimum. A target written in another mode
  /// is kept, reads back as written, and counts from the moment that the mode is 1.
  double goal(FourCC fanKey) const;

  std::array<Key, slotCount> slots{};
  /// The time since boot at which the fans had the speeds that their keys hold. Not negative.
  std::chrono::nanoseconds changedAt{};

 private:
  double actual(const Key& key, std::chrono::nanoseconds now) const;
  void settle(std::chrono::nanoseconds now);
};

/// "F", the index and the suffix ("Ac", "Tg", "Mn", "Mx", "Md"); of fan 10 "10Ac" and so on remain.
FourCC fanKey(unsigned index, std::string_view suffix);

}  // namespace quorvane::simulation
