#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "QuorvaneFanHelper/HelperSMC.h"

namespace quorvane {
namespace {

using Bytes = std::vector<std::uint8_t>;
constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr std::uint32_t unknownType = fourCC("hex_");

TEST(HelperSMCCodec, NamesBecomeCodes) {
  EXPECT_EQ(HelperSMC::keyCode("FNum"), 0x464E756DU);
  EXPECT_EQ(HelperSMC::keyCode(""), 0U);
  EXPECT_EQ(HelperSMC::keyCode("Md"), 0x4D64U);
  EXPECT_EQ(HelperSMC::keyCode("ABCDE"), HelperSMC::keyCode("BCDE"));
  EXPECT_EQ(HelperSMC::keyCode("F\xC3\xA9x"), 0x46C3A978U);
  EXPECT_EQ(HelperSMC::typeUI8, 0x75693820U);
  EXPECT_EQ(HelperSMC::typeFLT, 0x666C7420U);
}

TEST(HelperSMCCodec, Decodes) {
  struct Row {
    Bytes bytes;
    std::uint32_t type;
    std::int64_t size;
    std::optional<double> number;
  };
  const Row rows[] = {
      {{0x00, 0x80, 0xBB, 0x44}, HelperSMC::typeFLT, 4, 1500},
      {{0x00, 0x80, 0xBB, 0x44, 0xFF}, HelperSMC::typeFLT, 5, 1500},
      {{0xFF}, HelperSMC::typeUI8, 1, 255},
      {{0x12, 0x34}, HelperSMC::typeUI16, 2, 0x1234},
      {{0x13, 0x4A}, HelperSMC::typeFPE2, 2, 1234.5},
      {{0x13, 0x4A}, HelperSMC::typeFP2E, 2, 1234.5},
      {{0xFF, 0x80}, HelperSMC::typeSP78, 2, -0.5},
      {{0x80, 0x00}, HelperSMC::typeSP78, 2, -128},
      // Too few bytes: two types end there, the others are read by size.
      {{0x12, 0x34, 0x56}, HelperSMC::typeFLT, 3, 1165},
      {{0x12, 0x34, 0x56}, HelperSMC::typeFLT, 4, 1165},
      {{0x12, 0x34}, HelperSMC::typeFLT, 1, std::nullopt},
      {{}, HelperSMC::typeUI8, 1, std::nullopt},
      {{0x12}, HelperSMC::typeUI16, 2, std::nullopt},
      {{0x00}, HelperSMC::typeFPE2, 4, std::nullopt},
      {{0x00}, HelperSMC::typeSP78, 4, std::nullopt},
      // A type that is not known.
      {{0x00, 0x80, 0xBB, 0x44}, unknownType, 4, 1500},
      {{0x00, 0x80, 0xBB, 0x44}, unknownType, 3, 32},
      {{0x13, 0x4A}, unknownType, 2, 1234.5},
      {{0x13, 0x4A}, unknownType, 1, std::nullopt},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(HelperSMC::decode(row.bytes, row.type, row.size), row.number)
        << testing::PrintToString(row.bytes) << " type " << std::hex << row.type << " size "
        << row.size;
  }
}

TEST(HelperSMCCodec, Encodes) {
  struct Row {
    double number;
    std::uint32_t type;
    std::int64_t size;
    std::optional<Bytes> bytes;
  };
  const Row rows[] = {
      {1500, HelperSMC::typeFLT, 4, Bytes{0x00, 0x80, 0xBB, 0x44}},
      {1500, HelperSMC::typeFLT, 2, std::nullopt},
      {-0.0, HelperSMC::typeFLT, 4, Bytes{0, 0, 0, 0}},
      {NAN, HelperSMC::typeFLT, 4, Bytes{0, 0, 0, 0}},
      {infinity, HelperSMC::typeFLT, 4, Bytes{0x00, 0x00, 0x80, 0x7F}},
      {70000, HelperSMC::typeUI16, 2, Bytes{0xFF, 0xFF}},
      {0x1234, HelperSMC::typeUI16, 2, Bytes{0x12, 0x34}},
      {1, HelperSMC::typeUI16, 1, std::nullopt},
      {1234.6, HelperSMC::typeFPE2, 2, Bytes{0x13, 0x4A}},
      {20000, HelperSMC::typeFPE2, 2, Bytes{0xFF, 0xFF}},
      {2500, HelperSMC::typeFP2E, 0, Bytes{0x27, 0x10}},
      {-100, HelperSMC::typeFPE2, 4, Bytes{0, 0}},
      {infinity, HelperSMC::typeFPE2, 2, Bytes{0xFF, 0xFF}},
      {1.5, HelperSMC::typeSP78, 2, Bytes{0x01, 0x80}},
      {500, HelperSMC::typeSP78, 2, Bytes{0x7F, 0xFF}},
      {1, HelperSMC::typeSP78, 1, std::nullopt},
      {2.5, HelperSMC::typeUI8, 1, Bytes{0x03}},
      {0.49, HelperSMC::typeUI8, 1, Bytes{0x00}},
      {-5, HelperSMC::typeUI8, 1, Bytes{0x00}},
      {300, HelperSMC::typeUI8, 2, Bytes{0xFF}},
      {1, HelperSMC::typeUI8, 0, std::nullopt},
      {1, unknownType, 4, std::nullopt},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(HelperSMC::encode(row.number, row.type, row.size), row.bytes)
        << row.number << " type " << std::hex << row.type << " size " << row.size;
  }
}

}  // namespace
}  // namespace quorvane
