#include "QuorvaneFanHelper/HelperSMC.h"

#include <gtest/gtest.h>

#include "Platform/Linux/IOKitRegistry.h"
#include "QuorvaneFanHelper/Probe.h"
#include "Support/ScriptedSMC.h"

namespace quorvane {
namespace {

using Lines = std::vector<std::string>;

struct HelperSMCTest : testing::Test {
  HelperSMCTest() {
    machine().reset();
    machine().addKey("F0Md", "ui8 ", 1, 0xC0, {7});
    smc.connect();
  }
  ~HelperSMCTest() override { smc.close(); }

  HelperSMC smc;
};

TEST_F(HelperSMCTest, OpensTheServiceOfExactlyTheRightNameAndReleasesAllElse) {
  smc.close();
  const std::string right = "AppleSMCKeysEndpoint";
  machine().serviceNames = {"", "AppleSMC", right + "2", right, "later"};
  smc.connect();
  smc.close();
  for (const Lines& names : {Lines{"AppleSMC", right + "2"}, {std::string(200, 'A')}, {}}) {
    machine().serviceNames = names;
    EXPECT_THROW(smc.connect(), SMCError) << names.size();
  }
  machine().reset();
  machine().openStatus = kIOReturnNotPrivileged;
  EXPECT_THROW(smc.connect(), SMCError);
  EXPECT_EQ(iokit::referenceCount(), 0U);
}

TEST_F(HelperSMCTest, WithoutAConnectionNothingIsSent) {
  machine().addKey("F0Tg", "fpe2", 2, 0xC0);
  smc.writeRPM("F0Tg", 2500);
  EXPECT_EQ(smc.readRaw("F0Tg"), (ScriptedSMC::Bytes{0x27, 0x10}));
  smc.close();
  machine().takeCalls();
  try {
    smc.writeRPM("F0Tg", 1500);
    ADD_FAILURE() << "written without a connection";
  } catch (const SMCError& error) {
    EXPECT_EQ(error.text(), "notOpen") << "though its info is known";
  }
  EXPECT_EQ(smc.readRaw("F0Tg"), std::nullopt);
  EXPECT_TRUE(machine().takeCalls().empty());
}

TEST_F(HelperSMCTest, AByteIsWrittenToTheLastPlaceOfAValue) {
  machine().addKey("Zero", "hex_", 0, 0xC0);
  machine().addKey("Full", "hex_", 32, 0xC0);
  machine().addKey("Over", "hex_", 33, 0xC0);
  EXPECT_THROW(smc.writeByte("Zero", 1), SMCError);
  EXPECT_THROW(smc.writeByte("Over", 1), SMCError);
  smc.writeByte("Full", 1);
  EXPECT_EQ(smc.readRaw("Full")->back(), 1);
  EXPECT_EQ(smc.readByte("Zero"), std::nullopt);
  EXPECT_EQ(smc.readRaw("Over")->size(), 32U);
}

TEST_F(HelperSMCTest, ProbeMarksWhatIsAbsentOrNoNumber) {
  machine().setFanCount(2);
  machine().addKey("F0Ac", "flt ", 4, 0x80, {0xCD, 0x4C, 0x9A, 0x44});  // 1234.4
  machine().addKey("F0Tg", "flt ", 4, 0x80, {0x00, 0x00, 0x00, 0x5F});  // 2^63
  machine().addKey("F0Mn", "sp78", 2, 0x80, {0xFF, 0x80});              // -0.5
  Lines lines;
  EXPECT_EQ(listFans([&lines](const std::string& line) { lines.push_back(line); }), 0);
  EXPECT_EQ(lines, (Lines{"fanCount=2", "Fan 0: Ac=1234 Tg=— Mn=0 Mx=— Md=7",
                          "Fan 1: Ac=— Tg=— Mn=— Mx=— Md=—"}));
  EXPECT_EQ(iokit::referenceCount(), 1U) << "the probe's own connection is closed";
}

}  // namespace
}  // namespace quorvane
