// Conversions between a key's bytes and a number. Single precision is little-endian; every integer
// and fixed-point type is big-endian.
#include <algorithm>
#include <bit>
#include <cmath>

#include "QuorvaneFanHelper/HelperSMC.h"

namespace quorvane {
namespace {

constexpr double fpe2Scale = 4;  // two fraction bits; "fp2e" is treated alike
constexpr double sp78Scale = 256;

double decodeSingle(std::span<const std::uint8_t> bytes) {
  std::uint32_t bits = 0;
  for (std::size_t i = 4; i-- > 0;) bits = bits << 8 | bytes[i];
  return std::bit_cast<float>(bits);
}

std::vector<std::uint8_t> encodeSingle(double value) {
  const auto bits = std::bit_cast<std::uint32_t>(static_cast<float>(value));
  std::vector<std::uint8_t> bytes;
  for (unsigned shift = 0; shift < 32; shift += 8) {
    bytes.push_back(static_cast<std::uint8_t>(bits >> shift));
  }
  return bytes;
}

std::uint16_t decodeBigEndian16(std::span<const std::uint8_t> bytes) {
  return static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]);
}

/// Rounds a value that is not negative, half away from zero, to at most `max`.
std::uint16_t saturate(double value, double max) {
  return static_cast<std::uint16_t>(std::round(std::min(value, max)));
}

std::vector<std::uint8_t> encodeBigEndian16(std::uint16_t value) {
  return {static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value & 0xFF)};
}

/// Decodes an unknown type, or a known one with too few bytes.
std::optional<double> decodeBySize(std::span<const std::uint8_t> bytes, std::int64_t size) {
  if (size >= 4 && bytes.size() >= 4) return decodeSingle(bytes);
  if (size >= 2 && bytes.size() >= 2) return decodeBigEndian16(bytes) / fpe2Scale;
  return std::nullopt;
}

}  // namespace

std::optional<double> HelperSMC::decode(std::span<const std::uint8_t> bytes, FourCC type,
                                        std::int64_t size) {
  if (type == typeFLT && bytes.size() >= 4) return decodeSingle(bytes);
  if (type == typeUI8 && !bytes.empty()) return bytes[0];
  if (type == typeUI16 && bytes.size() >= 2) return decodeBigEndian16(bytes);
  if (type == typeFPE2 || type == typeFP2E) {
    if (bytes.size() < 2) return std::nullopt;
    return decodeBigEndian16(bytes) / fpe2Scale;
  }
  if (type == typeSP78) {
    if (bytes.size() < 2) return std::nullopt;
    return static_cast<std::int16_t>(decodeBigEndian16(bytes)) / sp78Scale;
  }
  return decodeBySize(bytes, size);
}

std::optional<std::vector<std::uint8_t>> HelperSMC::encode(double value, FourCC type,
                                                           std::int64_t size) {
  const double v = value > 0 ? value : 0;  // neither negative nor NaN
  if (type == typeFLT && size >= 4) return encodeSingle(v);
  if (type == typeUI16 && size >= 2) return encodeBigEndian16(saturate(v, 65535));
  if (type == typeFPE2 || type == typeFP2E) {
    return encodeBigEndian16(saturate(v * fpe2Scale, 65535));
  }
  if (type == typeSP78 && size >= 2) return encodeBigEndian16(saturate(v * sp78Scale, 32767));
  if (type == typeUI8 && size >= 1) {
    return std::vector<std::uint8_t>{static_cast<std::uint8_t>(saturate(v, 255))};
  }
  return std::nullopt;
}

}  // namespace quorvane
