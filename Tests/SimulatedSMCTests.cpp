// The simulated SMC as the helper meets it, behind the IOKit calls, and as smcsim edits it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "Platform/Linux/Drivers/SMCFile.h"
#include "QuorvaneFanHelper/HelperSMC.h"
#include "Support/TemporaryRoot.h"

namespace quorvane::simulation {
namespace {

using namespace std::chrono_literals;

const std::vector<std::uint8_t> rpm2500 = {0x00, 0x40, 0x1C, 0x45};

/// Runs the tool and yields its exit status.
int smcsim(const std::string& arguments) {
  return WEXITSTATUS(std::system((SMCSIM " " + arguments + " >/dev/null 2>&1").c_str()));
}

struct SimulatedSMCTest : testing::Test {
  SimulatedSMCTest() {
    EXPECT_EQ(smcsim("create"), 0);
    smc.connect();
  }

  inline static const TemporaryRoot root;
  const std::string file = "/var/lib/quorvane/smc", trace = file + ".trace", path = root.path(file);
  HelperSMC smc;
};

TEST_F(SimulatedSMCTest, AnswersAsHardwareDoesAndTracesEachCall) {
  root.write(trace, "");
  EXPECT_EQ(smc.readByte("FNum"), 2);
  EXPECT_THROW(smc.writeByte("FNum", 9), SMCError);
  smcsim("fail F0Tg result 200");
  EXPECT_THROW(smc.writeRPM("F0Tg", 1500), SMCError);
  smcsim("fail F0Tg call -7");
  smc.readRaw("F0Tg");
  smcsim("fail F0Tg clear");
  smc.writeRPM("F0Tg", 2500);
  EXPECT_EQ(smc.readRaw("F0Tg"), rpm2500);
  EXPECT_EQ(smc.keyInfo(0), std::nullopt) << "a free slot is no key";
  smcsim("create --speed-type fpe2");
  EXPECT_THROW(smc.writeRPM("F0Tg", 1500), SMCError) << "by the key's former size and type";
  std::filesystem::remove(path);
  smc.readByte("FNum");
  EXPECT_EQ(root.read(trace),
            "info FNum 1 75693820 128 - -> 0 0\n"
            "read FNum 1 75693820 128 02 -> 0 0\n"
            "write FNum 1 75693820 128 09 -> 0 134\n"
            "info F0Tg 4 666c7420 192 - -> 0 0\n"
            "write F0Tg 4 666c7420 192 0080bb44 -> 0 200\n"
            "read F0Tg 4 666c7420 192 - -> -7 0\n"
            "write F0Tg 4 666c7420 192 00401c45 -> 0 0\n"
            "read F0Tg 4 666c7420 192 00401c45 -> 0 0\n"
            "info \\x00\\x00\\x00\\x00 0 00000000 0 - -> 0 132\n"
            "write F0Tg 4 666c7420 192 0080bb44 -> 0 135\n"
            "read FNum 1 75693820 128 - -> -536870208 0\n");
}

TEST_F(SimulatedSMCTest, ADamagedFileIsAnError) {
  const std::string whole = root.read(file);
  std::vector<std::string> damaged = {"", whole.substr(0, whole.size() - 1)};
  for (const auto& [offset, byte] : {std::pair{0, 'X'}, {8, 2}, {23, '\x80'}, {28, 33}, {37, 3}}) {
    damaged.emplace_back(whole).at(static_cast<std::size_t>(offset)) = byte;
  }
  for (const std::string& bytes : damaged) {
    root.write(file, bytes);
    EXPECT_EQ(SMCFile().open(path, SMCFile::Access::change), EBADMSG) << &bytes - damaged.data();
  }
}

TEST_F(SimulatedSMCTest, TheFileIsLockedWhileItIsOpen) {
  const int other = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  for (const auto access : {SMCFile::Access::read, SMCFile::Access::change}) {
    SMCFile held;
    EXPECT_EQ(held.open(path, access), 0);
    EXPECT_EQ(flock(other, LOCK_SH | LOCK_NB), -1);
  }
  EXPECT_EQ(flock(other, LOCK_SH | LOCK_NB), 0);
  close(other);
}

TEST(SMCMachine, FansFollowModeAndTargetWithInertia) {
  using Row = std::tuple<const char*, Data, std::chrono::seconds, double>;
  const Data target = {0x00, 0x40, 0x1C, 0x45}, tooHigh = {0x00, 0x3C, 0x1C, 0x46};
  const Row rows[] = {
      {"F0Tg", target, 10s, 1350},  // in mode 0 it moves nothing
      {"F0Md", {1}, 2s, 1850},      {"F0Tg", {}, 60s, 1350},
      {"F0Tg", tooHigh, 60s, 5900}, {"F0Tg", {0, 0, 0xC0, 0x7F}, 60s, 1350},  // not a number
      {"F0Tg", target, 60s, 2500},  {"F0Md", {0}, 1s, 2250},
      {"F1Md", {1}, 60s, 1350},
  };
  SMCMachine machine = SMCMachine::fresh(2, typeFlt);
  std::chrono::nanoseconds now = 1h;
  for (const auto& [key, value, wait, actual] : rows) {
    machine.setValue(*machine.find(fourCharCode(key)), value, now);
    now += wait;
    EXPECT_EQ(machine.speed(fourCharCode("F0Ac"), now), actual) << key << " " << actual;
  }
}

TEST_F(SimulatedSMCTest, TheToolEditsTheMachineAndSaysWhenItCannot) {
  for (const char* bad : {"create --fans 17", "fail F0Tg result 256", "set F0Tg 0"}) {
    EXPECT_EQ(smcsim(bad), 2) << bad;
  }
  for (const char* wrong : {"set F0Tg 0040", "remove F5Tg"}) EXPECT_EQ(smcsim(wrong), 1) << wrong;
  for (const char* good : {"set F0Tg 00401c45", "remove F1Tg", "show"}) EXPECT_EQ(smcsim(good), 0);
  EXPECT_EQ(smc.readRaw("F0Tg"), rpm2500);
  EXPECT_EQ(smc.readRaw("F1Tg"), std::nullopt);
}

}  // namespace
}  // namespace quorvane::simulation
