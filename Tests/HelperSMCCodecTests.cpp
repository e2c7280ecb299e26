#include <gtest/gtest.h>

#include <cmath>
#include <tuple>

#include "QuorvaneFanHelper/HelperSMC.h"

namespace quorvane {
namespace {

using SMC = HelperSMC;
using Bytes = std::vector<std::uint8_t>;
constexpr auto none = std::nullopt;
constexpr std::uint32_t unknownType = fourCC("hex_");

static_assert(SMC::keyCode("FNum") == 0x464E756D);
static_assert(SMC::keyCode("F10Tg") == SMC::keyCode("10Tg"));
static_assert(SMC::keyCode("F\xC3\xA9x") == 0x46C3A978);

TEST(HelperSMCCodec, Decodes) {
  using Row = std::tuple<Bytes, std::uint32_t, std::int64_t, std::optional<double>>;
  const Row rows[] = {
      {{0x00, 0x80, 0xBB, 0x44}, SMC::typeFLT, 4, 1500},
      {{0xFF}, SMC::typeUI8, 1, 255},
      {{0x12, 0x34}, SMC::typeUI16, 2, 0x1234},
      {{0x13, 0x4A}, SMC::typeFPE2, 2, 1234.5},
      {{0xFF, 0x80}, SMC::typeSP78, 2, -0.5},
      // Too few bytes: the fixed-point types end there, the others are read by size.
      {{0x12, 0x34, 0x56}, SMC::typeFLT, 4, 1165},
      {{0x12}, SMC::typeFPE2, 4, none},
      {{0x00, 0x80, 0xBB, 0x44}, unknownType, 4, 1500},
      {{0x00, 0x80, 0xBB, 0x44}, unknownType, 3, 32},
      {{0x13, 0x4A}, unknownType, 1, none},
  };
  for (const auto& [bytes, type, size, number] : rows) {
    EXPECT_EQ(SMC::decode(bytes, type, size), number) << testing::PrintToString(bytes) << type;
  }
}

TEST(HelperSMCCodec, Encodes) {
  using Row = std::tuple<double, std::uint32_t, std::int64_t, std::optional<Bytes>>;
  const Row rows[] = {
      {1500, SMC::typeFLT, 4, Bytes{0x00, 0x80, 0xBB, 0x44}},
      {NAN, SMC::typeFLT, 4, Bytes(4)},
      {1500, SMC::typeFLT, 2, none},
      {0x1234, SMC::typeUI16, 2, Bytes{0x12, 0x34}},
      {1234.6, SMC::typeFPE2, 2, Bytes{0x13, 0x4A}},
      {20000, SMC::typeFPE2, 2, Bytes{0xFF, 0xFF}},
      {-100, SMC::typeFPE2, 4, Bytes{0, 0}},
      {2500, SMC::typeFP2E, 0, Bytes{0x27, 0x10}},
      {1.5, SMC::typeSP78, 2, Bytes{0x01, 0x80}},
      {500, SMC::typeSP78, 2, Bytes{0x7F, 0xFF}},
      {2.5, SMC::typeUI8, 1, Bytes{3}},
      {300, SMC::typeUI8, 2, Bytes{0xFF}},
      {1, SMC::typeUI8, 0, none},
      {1, unknownType, 4, none},
  };
  for (const auto& [number, type, size, bytes] : rows) {
    EXPECT_EQ(SMC::encode(number, type, size), bytes) << number << " " << type;
  }
}

}  // namespace
}  // namespace quorvane
