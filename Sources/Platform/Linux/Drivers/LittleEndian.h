// Unsigned integers in records and files whose byte order is fixed: least significant byte first.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>

namespace quorvane::simulation {

template <std::unsigned_integral T>
T loadLittleEndian(const std::uint8_t* at) {
  T value = 0;
  for (std::size_t i = sizeof(T); i-- > 0;) value = static_cast<T>((value << 8) | at[i]);
  return value;
}

template <std::unsigned_integral T>
void storeLittleEndian(std::uint8_t* at, T value) {
  for (std::size_t i = 0; i < sizeof(T); ++i) at[i] = static_cast<std::uint8_t>(value >> (8 * i));
}

}  // namespace quorvane::simulation
