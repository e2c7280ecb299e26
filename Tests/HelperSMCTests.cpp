#include "QuorvaneFanHelper/HelperSMC.h"

#include <gtest/gtest.h>

#include "Platform/Linux/IOKitRegistry.h"
#include "QuorvaneFanHelper/Probe.h"
#include "Support/ScriptedSMC.h"

namespace quorvane {
namespace {

using Lines = std::vector<std::string>;
using Operation = ScriptedSMC::Operation;
using Record = ScriptedSMC::Record;

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

TEST_F(HelperSMCTest, RequestsAreLaidOutAsTheDriverExpectsUntilTheConnectionIsClosed) {
  const auto request = [](Record record, std::uint8_t command) {
    std::copy_n("gT0F", 4, record.begin());
    record[42] = command;
    return record;
  };
  machine().addKey("F0Tg", "fpe2", 2, 0xC0);
  const Record untouched = machine().keys["F0Tg"];
  smc.writeRPM("F0Tg", 2500);
  smc.readRaw("F0Tg");
  const auto calls = machine().takeCalls();
  ASSERT_EQ(calls.size(), 3U) << "info is asked for once";
  EXPECT_EQ(calls[0].request, request({}, 9));
  EXPECT_EQ(calls[1].request, request(machine().keys["F0Tg"], 6));
  EXPECT_EQ(calls[2].request, request(untouched, 5));
  EXPECT_EQ(machine().value("F0Tg"), (ScriptedSMC::Bytes{0x27, 0x10}));

  smc.close();
  try {
    smc.writeRPM("F0Tg", 1500);
    ADD_FAILURE() << "written without a connection";
  } catch (const SMCError& error) {
    EXPECT_EQ(error.text(), "notOpen") << "though its info is known";
  }
  EXPECT_EQ(smc.readRaw("F0Tg"), std::nullopt);
  EXPECT_TRUE(machine().takeCalls().empty());
}

TEST_F(HelperSMCTest, ReadsAndWritesJudgeAReplyDifferently) {
  const ScriptedSMC::Which reads("F0Md", Operation::read), writes("F0Md", Operation::write);
  machine().failResults({"F0Md", Operation::info}, 1);
  EXPECT_THROW(smc.writeByte("F0Md", 1), SMCError) << "its info is not known";
  machine().heal();
  machine().failures[reads] = machine().failures[writes] = {.replySize = 47};
  EXPECT_EQ(smc.readByte("F0Md"), std::nullopt);
  smc.writeByte("F0Md", 1);
  machine().failures[reads] = {.replySize = 48};
  EXPECT_EQ(smc.readByte("F0Md"), 1);
  machine().failures[reads] = machine().failures[writes] = {.result = 132};
  EXPECT_EQ(smc.readByte("F0Md"), std::nullopt);
  EXPECT_THROW(smc.writeByte("F0Md", 1), SMCError);
  machine().failures[reads] = {.status = kIOReturnTimeout};
  EXPECT_EQ(smc.readByte("F0Md"), std::nullopt);
}

TEST_F(HelperSMCTest, AByteIsWrittenToTheLastPlaceOfAValue) {
  machine().addKey("Zero", "hex_", 0, 0xC0);
  machine().addKey("Full", "hex_", 32, 0xC0);
  machine().addKey("Over", "hex_", 33, 0xC0);
  EXPECT_THROW(smc.writeByte("Zero", 1), SMCError);
  EXPECT_THROW(smc.writeByte("Over", 1), SMCError);
  smc.writeByte("Full", 1);
  EXPECT_EQ(machine().value("Full").back(), 1);
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
