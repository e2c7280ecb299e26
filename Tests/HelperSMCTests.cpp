// What the simulation cannot tell of the SMC access: which service is opened, the number types of
// which no fan is written, and the probe.
#include "QuorvaneFanHelper/HelperSMC.h"

#include <gtest/gtest.h>

#include <cmath>

#include "Platform/Linux/IOKitRegistry.h"
#include "QuorvaneFanHelper/Probe.h"
#include "Support/ScriptedSMC.h"

namespace quorvane {
namespace {

using SMC = HelperSMC;
using Bytes = std::vector<std::uint8_t>;

static_assert(SMC::keyCode("F10Tg") == SMC::keyCode("10Tg"));

TEST(HelperSMC, OpensTheServiceOfExactlyTheRightNameAndReleasesAllElse) {
  HelperSMC smc;
  machine().setFanCount(3);
  const std::string right = "AppleSMCKeysEndpoint";
  machine().serviceNames = {"", "AppleSMC", right + "2", right, "later"};
  smc.connect();
  EXPECT_EQ(smc.readByte("FNum"), 3);
  smc.close();
  EXPECT_EQ(smc.readByte("FNum"), std::nullopt);
  EXPECT_THROW(smc.writeByte("FNum", 1), SMCError) << "though its info is known";
  EXPECT_EQ(machine().takeCalls().size(), 2U) << "nothing is sent without a connection";
  for (const auto& names :
       {std::vector{std::string("AppleSMC"), right + "2"}, {std::string(200, 'A')}, {}}) {
    machine().serviceNames = names;
    EXPECT_THROW(smc.connect(), SMCError) << names.size();
  }
  machine().reset();
  machine().openStatus = kIOReturnNotPrivileged;
  EXPECT_THROW(smc.connect(), SMCError);
  machine().reset();
  EXPECT_EQ(iokit::referenceCount(), 0U);
}

TEST(HelperSMC, ProbeMarksWhatIsAbsentOrNoNumber) {
  machine().setFanCount(2);
  machine().addKey("F0Ac", "flt ", 4, 0x80, {0xCD, 0x4C, 0x9A, 0x44});  // 1234.4
  machine().addKey("F0Tg", "flt ", 4, 0x80, {0x00, 0x00, 0x00, 0x5F});  // 2^63
  machine().addKey("F0Mn", "sp78", 2, 0x80, {0xFF, 0x80});              // -0.5
  machine().addKey("F0Md", "ui8 ", 1, 0xC0, {7});
  std::vector<std::string> lines;
  EXPECT_EQ(listFans([&lines](const std::string& line) { lines.push_back(line); }), 0);
  EXPECT_EQ(lines, (std::vector<std::string>{"fanCount=2", "Fan 0: Ac=1234 Tg=— Mn=0 Mx=— Md=7",
                                             "Fan 1: Ac=— Tg=— Mn=— Mx=— Md=—"}));
  EXPECT_EQ(iokit::referenceCount(), 0U);
}

constexpr std::uint32_t unknownType = fourCC("hex_");

TEST(HelperSMC, Decodes) {
  using Row = std::tuple<Bytes, std::uint32_t, std::int64_t, std::optional<double>>;
  const Row rows[] = {
      {{0xFF}, SMC::typeUI8, 1, 255},
      {{0x12, 0x34}, SMC::typeUI16, 2, 0x1234},
      {{0x13, 0x4A}, SMC::typeFPE2, 2, 1234.5},
      // Too few bytes: the fixed-point types end there, the others are read by size.
      {{0x12, 0x34, 0x56}, SMC::typeFLT, 4, 1165},
      {{0x12}, SMC::typeFPE2, 4, std::nullopt},
      {{0x00, 0x80, 0xBB, 0x44}, unknownType, 4, 1500},
      {{0x00, 0x80, 0xBB, 0x44}, unknownType, 3, 32},
      {{0x13, 0x4A}, unknownType, 1, std::nullopt},
  };
  for (const auto& [bytes, type, size, number] : rows) {
    EXPECT_EQ(SMC::decode(bytes, type, size), number) << testing::PrintToString(bytes) << type;
  }
}

TEST(HelperSMC, Encodes) {
  using Row = std::tuple<double, std::uint32_t, std::int64_t, std::optional<Bytes>>;
  const Row rows[] = {
      {NAN, SMC::typeFLT, 4, Bytes(4)},
      {0x1234, SMC::typeUI16, 2, Bytes{0x12, 0x34}},
      {1234.6, SMC::typeFPE2, 2, Bytes{0x13, 0x4A}},
      {20000, SMC::typeFPE2, 2, Bytes{0xFF, 0xFF}},
      {-100, SMC::typeFPE2, 4, Bytes{0, 0}},
      {2500, SMC::typeFP2E, 0, Bytes{0x27, 0x10}},
      {1.5, SMC::typeSP78, 2, Bytes{0x01, 0x80}},
      {500, SMC::typeSP78, 2, Bytes{0x7F, 0xFF}},
      {2.5, SMC::typeUI8, 1, Bytes{3}},
      {300, SMC::typeUI8, 2, Bytes{0xFF}},
      {1, SMC::typeUI8, 0, std::nullopt},
  };
  for (const auto& [number, type, size, bytes] : rows) {
    EXPECT_EQ(SMC::encode(number, type, size), bytes) << number << " " << type;
  }
}

}  // namespace
}  // namespace quorvane
