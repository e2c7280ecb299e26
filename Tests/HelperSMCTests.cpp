#include "QuorvaneFanHelper/HelperSMC.h"

#include <gtest/gtest.h>

#include "Platform/Linux/IOKitRegistry.h"
#include "QuorvaneFanHelper/Probe.h"
#include "Support/ScriptedSMC.h"

namespace quorvane {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Lines = std::vector<std::string>;
using Operation = ScriptedSMC::Operation;

constexpr char endpoint[] = "AppleSMCKeysEndpoint";

/// The text of the error that `work` throws, or "none".
template <class Work>
std::string thrownBy(Work work) {
  try {
    work();
  } catch (const SMCError& error) {
    return error.text();
  }
  return "none";
}

Bytes toBytes(const ScriptedSMC::Record& record) {
  return {record.begin(), record.end()};
}

class HelperSMCTest : public testing::Test {
 protected:
  HelperSMCTest() { machine().reset(); }

  HelperSMC smc;
};

TEST_F(HelperSMCTest, OpensTheServiceOfExactlyTheRightNameAndReleasesAllOthers) {
  using Names = std::vector<std::optional<std::string>>;
  struct Row {
    const char* what;
    Names names;
    std::string error;
  };
  const Row rows[] = {
      {"not the first one", {"AppleSMC", std::nullopt, endpoint, "later"}, "none"},
      {"a longer name", {std::string(endpoint) + "2", "AppleSMC"}, "notOpen"},
      {"a shorter name", {"AppleSMCKeysEndpoin"}, "notOpen"},
      {"a name without end", {std::string(200, 'A')}, "notOpen"},
      {"none at all", {}, "notOpen"},
  };
  for (const Row& row : rows) {
    machine().serviceNames = row.names;
    HelperSMC fresh;
    EXPECT_EQ(thrownBy([&fresh] { fresh.connect(); }), row.error) << row.what;
    EXPECT_EQ(iokit::referenceCount(), row.error == "none" ? 1U : 0U) << row.what;
    fresh.close();
    EXPECT_EQ(iokit::referenceCount(), 0U) << row.what;
  }
  machine().serviceNames = {endpoint};
  machine().openStatus = kIOReturnNotPrivileged;
  EXPECT_EQ(thrownBy([this] { smc.connect(); }), "notOpen");
  EXPECT_EQ(iokit::referenceCount(), 0U);
}

TEST_F(HelperSMCTest, RecordsAreLaidOutAsTheDriverExpects) {
  machine().addKey("F0Tg", "fpe2", 2, 0xC0, {0, 0});
  smc.connect();
  smc.writeRPM("F0Tg", 2500);
  smc.readRaw("F0Tg");
  const auto calls = machine().takeCalls();
  ASSERT_EQ(calls.size(), 3U);
  Bytes info(80), write(80), read(80);
  const Bytes code = {0x67, 0x54, 0x30, 0x46};
  for (Bytes* record : {&info, &write, &read}) std::copy(code.begin(), code.end(), record->begin());
  const Bytes description = {2, 0, 0, 0, '2', 'e', 'p', 'f', 0xC0};
  for (Bytes* record : {&write, &read})
    std::copy(description.begin(), description.end(), record->begin() + 28);
  info[42] = 9;
  write[42] = 6;
  read[42] = 5;
  write[48] = 0x27;
  write[49] = 0x10;
  EXPECT_EQ(toBytes(calls[0].request), info);
  EXPECT_EQ(toBytes(calls[1].request), write);
  EXPECT_EQ(toBytes(calls[2].request), read);
}

TEST_F(HelperSMCTest, KeyInfoIsAskedForUntilItIsKnownAndNeverAgain) {
  machine().addKey("F0Md", "ui8 ", 1, 0xC0, {0});
  smc.connect();
  machine().failResults({"F0Md", Operation::info}, 1);
  EXPECT_EQ(smc.keyInfo(HelperSMC::keyCode("F0Md")), std::nullopt);
  machine().heal();
  smc.writeByte("F0Md", 1);
  smc.writeByte("F0Md", 0);
  smc.readByte("F0Md");
  std::vector<Operation> operations;
  for (const auto& call : machine().takeCalls()) operations.push_back(call.operation);
  EXPECT_EQ(operations, (std::vector<Operation>{Operation::info, Operation::info, Operation::write,
                                                Operation::write, Operation::read}));
}

TEST_F(HelperSMCTest, ReadsAndWritesJudgeAReplyDifferently) {
  machine().addKey("F0Md", "ui8 ", 1, 0xC0, {7});
  smc.connect();
  smc.readByte("F0Md");

  machine().setReplySize({"F0Md", Operation::read}, 47);
  machine().setReplySize({"F0Md", Operation::write}, 47);
  EXPECT_EQ(smc.readByte("F0Md"), std::nullopt);
  EXPECT_EQ(thrownBy([this] { smc.writeByte("F0Md", 1); }), "none");
  machine().setReplySize({"F0Md", Operation::read}, 48);
  EXPECT_EQ(smc.readByte("F0Md"), 1);
  machine().heal();

  machine().failResults({"F0Md", Operation::read}, 132);
  machine().failResults({"F0Md", Operation::write}, 132);
  EXPECT_EQ(smc.readByte("F0Md"), std::nullopt);
  EXPECT_EQ(thrownBy([this] { smc.writeByte("F0Md", 1); }), "resultError(132)");

  machine().failCalls({"F0Md", Operation::read}, kIOReturnTimeout);
  machine().failCalls({"F0Md", Operation::write}, kIOReturnTimeout);
  EXPECT_EQ(smc.readByte("F0Md"), std::nullopt);
  EXPECT_EQ(thrownBy([this] { smc.writeByte("F0Md", 1); }), "callFailed(-536870186)");
}

TEST_F(HelperSMCTest, ValuesOfEverySize) {
  struct Row {
    std::uint32_t size;
    std::optional<std::size_t> readSize;
    std::string error;
    std::size_t valueAt;
  };
  smc.connect();
  for (const Row& row : {Row{0, 0, "keyMissing", 0}, Row{1, 1, "none", 0}, Row{2, 2, "none", 1},
                         Row{32, 32, "none", 31}, Row{40, 32, "keyMissing", 0}}) {
    const std::string key = "K" + std::to_string(100 + row.size);
    machine().addKey(key, "hex_", row.size, 0xC0, Bytes(row.size, 0xEE));
    const auto bytes = smc.readRaw(key);
    EXPECT_EQ(bytes ? std::optional(bytes->size()) : std::nullopt, row.readSize) << row.size;
    EXPECT_EQ(smc.readByte(key), row.size == 0 ? std::nullopt : std::optional<std::uint8_t>(0xEE));
    machine().takeCalls();
    EXPECT_EQ(thrownBy([&] { smc.writeByte(key, 1); }), row.error) << row.size;
    EXPECT_EQ(thrownBy([&] { smc.writeRPM(key, 1); }), "keyMissing") << "a type without a format";
    EXPECT_EQ(machine().takeCalls().size(), row.error == "none" ? 1U : 0U) << row.size;
    if (row.error != "none") continue;
    Bytes expected(row.size, 0);
    expected[row.valueAt] = 1;
    EXPECT_EQ(machine().value(key), expected);
  }
}

TEST_F(HelperSMCTest, WithoutAConnectionNothingReachesTheDriver) {
  machine().addKey("F0Md", "ui8 ", 1, 0xC0, {0});
  EXPECT_EQ(smc.readRaw("F0Md"), std::nullopt);
  EXPECT_EQ(smc.keyInfo(HelperSMC::keyCode("F0Md")), std::nullopt);
  EXPECT_EQ(thrownBy([this] { smc.writeByte("F0Md", 1); }), "keyMissing");
  EXPECT_TRUE(machine().takeCalls().empty());

  smc.connect();
  smc.readByte("F0Md");
  smc.close();
  machine().takeCalls();
  EXPECT_EQ(thrownBy([this] { smc.writeByte("F0Md", 1); }), "notOpen") << "its info is known";
  EXPECT_EQ(smc.readByte("F0Md"), std::nullopt);
  EXPECT_TRUE(machine().takeCalls().empty());
}

std::pair<int, Lines> probe() {
  Lines lines;
  const int status = listFans([&lines](const std::string& line) { lines.push_back(line); });
  return {status, lines};
}

TEST_F(HelperSMCTest, ProbeListsEveryFanAndMarksWhatIsAbsent) {
  machine().setFanCount(12);
  machine().addKey("F0Ac", "flt ", 4, 0x80, {0xCD, 0x4C, 0x9A, 0x44});  // 1234.4
  machine().addKey("F0Mn", "sp78", 2, 0x80, {0xFF, 0x80});              // -0.5
  machine().addKey("F0Mx", "flt ", 4, 0x80, {0x00, 0x00, 0x80, 0x7F});  // infinite
  machine().addKey("F0Md", "ui16", 2, 0xC0, {0x03, 0x01});
  machine().addKey("F1Ac", "flt ", 4, 0x80, {0x00, 0x00, 0x00, 0xDF});  // -2^63
  machine().addKey("F1Tg", "flt ", 4, 0x80, {0x00, 0x00, 0x00, 0x5F});  // 2^63
  machine().addKey("F1Mn", "ch8*", 1, 0x80, {'x'});
  machine().addKey("11Tg", "ui16", 2, 0x80, {0x01, 0x00});  // what remains of "F11Tg" in four bytes
  const auto [status, lines] = probe();
  EXPECT_EQ(status, 0);
  ASSERT_EQ(lines.size(), 13U);
  EXPECT_EQ(lines[0], "fanCount=12");
  EXPECT_EQ(lines[1], "Fan 0: Ac=1234 Tg=— Mn=0 Mx=— Md=3");
  EXPECT_EQ(lines[2], "Fan 1: Ac=-9223372036854775808 Tg=— Mn=— Mx=— Md=—");
  EXPECT_EQ(lines[12], "Fan 11: Ac=— Tg=256 Mn=— Mx=— Md=—");
  for (const auto& call : machine().takeCalls()) EXPECT_NE(call.operation, Operation::write);
  EXPECT_EQ(iokit::referenceCount(), 0U) << "the connection is closed";
}

TEST_F(HelperSMCTest, ProbeWithoutFansOrWithoutAnSMC) {
  EXPECT_EQ(probe(), std::pair(0, Lines{"fanCount=0"}));
  machine().serviceNames.clear();
  EXPECT_EQ(probe(), std::pair(1, Lines{"SMC open failed: notOpen"}));
}

}  // namespace
}  // namespace quorvane
