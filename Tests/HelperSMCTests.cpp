// The parts of the SMC access that the simulation does not cover: the choice of the service, the
// number types that no fan write uses, and the probe.
#include "QuorvaneFanHelper/HelperSMC.h"

#include <gtest/gtest.h>

#include "Platform/Linux/IOKitRegistry.h"
#include "QuorvaneFanHelper/Probe.h"
#include "Support/ScriptedSMC.h"

namespace quorvane {

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
  EXPECT_EQ(smc.readByte("FNum"), std::nullopt) << "though its info is known";
  machine().serviceNames = {"AppleSMC", right + "2", std::string(200, 'A')};
  EXPECT_THROW(smc.connect(), SMCError);
  machine().reset();
  machine().openStatus = kIOReturnNotPrivileged;
  EXPECT_THROW(smc.connect(), SMCError);
  machine().reset();
  EXPECT_EQ(iokit::referenceCount(), 0U);
}

TEST(HelperSMC, ProbeReadsNumbersByTheirTypesAndMarksWhatIsNone) {
  machine().setFanCount(2);
  machine().addKey("F0Ac", "flt ", 4, 0x80, {0xCD, 0x4C, 0x9A, 0x44});  // 1234.4
  machine().addKey("F0Tg", "flt ", 4, 0x80, {0x00, 0x00, 0x00, 0x5F});  // 2^63
  machine().addKey("F0Mn", "sp78", 2, 0x80, {0xFF, 0x80});              // -0.5
  machine().addKey("F0Md", "ui8 ", 1, 0xC0, {7});
  machine().addKey("F1Ac", "fpe2", 2, 0x80, {0x13, 0x4B});  // 1234.75
  machine().addKey("F1Tg", "ui16", 2, 0x80, {0x12, 0x34});
  // Values of an unknown type are read by size.
  machine().addKey("F1Mn", "hex_", 4, 0x80, {0x00, 0x80, 0xBB, 0x44});
  machine().addKey("F1Mx", "hex_", 3, 0x80, {0x00, 0x80, 0xBB});
  std::vector<std::string> lines;
  EXPECT_EQ(listFans([&lines](const std::string& line) { lines.push_back(line); }), 0);
  EXPECT_EQ(lines, (std::vector<std::string>{"fanCount=2", "Fan 0: Ac=1234 Tg=— Mn=0 Mx=— Md=7",
                                             "Fan 1: Ac=1234 Tg=4660 Mn=1500 Mx=32 Md=—"}));
  EXPECT_EQ(iokit::referenceCount(), 0U);
}

TEST(HelperSMC, Encodes) {
  using Row = std::tuple<double, std::uint32_t, std::int64_t, std::optional<Bytes>>;
  const Row rows[] = {
      {0x1234, SMC::typeUI16, 2, Bytes{0x12, 0x34}},
      {20000, SMC::typeFPE2, 2, Bytes{0xFF, 0xFF}},
      {2500, SMC::typeFP2E, 0, Bytes{0x27, 0x10}},
      {1.5, SMC::typeSP78, 2, Bytes{0x01, 0x80}},
      {2.5, SMC::typeUI8, 1, Bytes{3}},
      {1, SMC::typeUI8, 0, std::nullopt},
  };
  for (const auto& [number, type, size, bytes] : rows) {
    EXPECT_EQ(SMC::encode(number, type, size), bytes) << number << " " << type;
  }
}

}  // namespace quorvane
