#include "Platform/Linux/Drivers/SMCMachine.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstring>
#include <limits>
#include <utility>

namespace quorvane::simulation {
namespace {

using std::chrono::nanoseconds;

/// The key of the same fan with another suffix; the upper half of the code identifies the fan.
FourCC sibling(FourCC fanKey, std::string_view suffix) {
  return (fanKey & 0xFFFF0000U) | fourCC(suffix);
}

template <class Number>
Number load(const Data& data) {
  Number number;
  std::memcpy(&number, data.data(), sizeof number);
  return number;
}

template <class Number>
Data store(Number number) {
  Data data{};
  std::memcpy(data.data(), &number, sizeof number);
  return data;
}

bool hasSpeedType(const Key& key) {
  return (key.type == typeFLT && key.size == 4) || (key.type == typeFPE2 && key.size == 2);
}

bool isActualSpeed(const Key& key) {
  return key.code == sibling(key.code, "Ac") && hasSpeedType(key);
}

double loadActual(const Data& data) {
  const auto speed = load<double>(data);
  // The bytes come from a file, which can contain anything. NaN fails the comparison, too.
  return std::abs(speed) <= std::numeric_limits<float>::max() ? speed : 0;
}

}  // namespace

std::string printable(FourCC code) {
  std::string text;
  for (const int shift : {24, 16, 8, 0}) {
    const auto byte = static_cast<std::uint8_t>(code >> shift);
    if (byte > ' ' && byte < 0x7F) {
      text += static_cast<char>(byte);
    } else {
      text += "\\x";
      text += hex(&byte, 1);
    }
  }
  return text;
}

std::string hex(const std::uint8_t* bytes, std::size_t count) {
  constexpr std::string_view digits = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < count; ++i) {
    text += digits[bytes[i] >> 4];
    text += digits[bytes[i] & 0xF];
  }
  return text;
}

FourCC fanKey(unsigned index, std::string_view suffix) {
  std::string name("F");
  name.append(std::to_string(index)).append(suffix);
  return fourCC(name);
}

SMCMachine SMCMachine::fresh(unsigned fanCount, FourCC speedType) {
  assert(fanCount <= fanCountMax);
  constexpr std::uint8_t readOnly = smc::attributeReadable;
  constexpr std::uint8_t readWrite = smc::attributeReadable | smc::attributeWritable;
  SMCMachine machine;
  auto slot = machine.slots.begin();
  const auto addByte = [&slot](FourCC code, std::uint8_t attributes, std::uint8_t value) {
    *slot = {.code = code, .size = 1, .type = smc::typeUI8, .attributes = attributes};
    slot->data[0] = value;
    ++slot;
  };
  const auto addSpeed = [&](FourCC code, std::uint8_t attributes, double speed) {
    const std::uint32_t size = speedType == typeFLT ? 4 : 2;
    *slot = {.code = code, .size = size, .type = speedType, .attributes = attributes};
    slot->data = isActualSpeed(*slot) ? store(speed) : smc::encodeSpeed(speedType, speed);
    ++slot;
  };
  addByte(fourCC("FNum"), readOnly, static_cast<std::uint8_t>(fanCount));
  for (unsigned fan = 0; fan < fanCount; ++fan) {
    // The fans differ, so that a mix-up of fans shows.
    const double low = 1350 + 50.0 * fan;
    addSpeed(fanKey(fan, "Ac"), readOnly, low);
    addSpeed(fanKey(fan, "Tg"), readWrite, low);
    addSpeed(fanKey(fan, "Mn"), readOnly, low);
    addSpeed(fanKey(fan, "Mx"), readOnly, 5900 + 100.0 * fan);
    addByte(fanKey(fan, "Md"), readWrite, 0);
  }
  return machine;
}

const Key* SMCMachine::find(FourCC code) const {
  const auto found =
      std::find_if(slots.begin(), slots.end(), [code](const Key& key) { return key.code == code; });
  return code != 0 && found != slots.end() ? &*found : nullptr;
}

Key* SMCMachine::find(FourCC code) {
  return const_cast<Key*>(std::as_const(*this).find(code));
}

Data SMCMachine::value(const Key& key, nanoseconds now) const {
  return isActualSpeed(key) ? smc::encodeSpeed(key.type, actual(key, now)) : key.data;
}

void SMCMachine::setValue(Key& key, const Data& value, nanoseconds now) {
  settle(now);
  key.data = isActualSpeed(key) ? store(smc::decodeSpeed(key.type, value).value_or(0)) : value;
}

void SMCMachine::remove(Key& key, nanoseconds now) {
  settle(now);
  key = {};
}

std::optional<double> SMCMachine::speed(FourCC code, nanoseconds now) const {
  const Key* key = find(code);
  if (key == nullptr || !hasSpeedType(*key)) return std::nullopt;
  return smc::decodeSpeed(key->type, value(*key, now));
}

double SMCMachine::goal(FourCC fanKey) const {
  const auto limit = [&](std::string_view suffix) {
    return speed(sibling(fanKey, suffix), changedAt);
  };
  const double low = limit("Mn").value_or(0);
  const Key* mode = find(sibling(fanKey, "Md"));
  if (mode == nullptr || mode->data[0] != 1) return low;
  const double target = std::max(limit("Tg").value_or(low), low);
  return std::min(target, limit("Mx").value_or(target));
}

double SMCMachine::actual(const Key& key, nanoseconds now) const {
  const double from = loadActual(key.data);
  const double to = goal(key.code);
  // A time before `changedAt` means a reboot since: the fan reached its goal long ago.
  if (now < changedAt) return to;
  const double reach = slope * std::chrono::duration<double>(now - changedAt).count();
  return from + std::clamp(to - from, -reach, reach);
}

/// Stores the present speeds in the fans' keys. Must precede every change of a goal.
void SMCMachine::settle(nanoseconds now) {
  for (Key& key : slots) {
    if (isActualSpeed(key)) key.data = store(actual(key, now));
  }
  changedAt = now;
}

}  // namespace quorvane::simulation
