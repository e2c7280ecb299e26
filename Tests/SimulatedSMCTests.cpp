#include "Platform/Linux/Drivers/SimulatedSMC.h"

#include <IOKit/IOKitLib.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "Platform/Linux/Drivers/LittleEndian.h"
#include "Platform/Linux/Drivers/SMCFile.h"
#include "Platform/SystemPath.h"

namespace quorvane::simulation {
namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;
using Record = std::array<std::uint8_t, 80>;

const Bytes rpm1350 = {0x00, 0xC0, 0xA8, 0x44};
const Bytes rpm2500 = {0x00, 0x40, 0x1C, 0x45};

/// What a struct call came to, as a trace shows it: kernel return and SMC result.
using Answer = std::pair<kern_return_t, int>;
constexpr Answer done{KERN_SUCCESS, 0};

Record request(std::uint8_t command, const char* name, std::uint32_t size, FourCharCode type,
               const Bytes& data = {}) {
  Record record{};
  storeLittleEndian(&record[0], fourCharCode(name));
  storeLittleEndian(&record[28], size);
  storeLittleEndian(&record[32], type);
  record[36] = 192;
  record[42] = command;
  std::copy(data.begin(), data.end(), &record[48]);
  return record;
}

std::string content(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

class SimulatedSMCTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(path, root + std::string(smcPath)) << "this would touch the real machine";
    create(2, typeFlt);
  }
  ~SimulatedSMCTest() override { std::filesystem::remove_all(root); }

  void create(unsigned fanCount, FourCharCode speedType) {
    ASSERT_EQ(SMCFile::create(path, SMCMachine::fresh(fanCount, speedType)), 0);
  }
  /// Changes the machine the way that smcsim does.
  template <typename Edit>
  void edit(const char* name, Edit change) {
    SMCFile file;
    ASSERT_EQ(file.open(path, SMCFile::Access::change), 0);
    change(file.machine, *file.machine.find(fourCharCode(name)));
    ASSERT_EQ(file.save(), 0);
  }
  void inject(const char* name, Failure failure, std::int32_t value) {
    edit(name, [=](SMCMachine&, Key& key) {
      key.failure = failure;
      key.failureValue = value;
    });
  }

  Answer call(SimulatedSMC& client, const Record& record) {
    reply = {};
    std::size_t size = reply.size();
    const auto status = client.callStructMethod(2, record.data(), 80, reply.data(), &size);
    return {status, reply[40]};
  }
  Answer info(const char* name) { return call(smc, request(9, name, 0, 0)); }
  Answer read(const char* name, std::uint32_t size, FourCharCode type) {
    return call(smc, request(5, name, size, type));
  }
  Answer write(const char* name, const Bytes& data, FourCharCode type) {
    return call(smc, request(6, name, static_cast<std::uint32_t>(data.size()), type, data));
  }
  /// What a read of a key of type fpe2 gives.
  double speed(const char* name) {
    EXPECT_EQ(read(name, 2, typeFpe2), done) << name;
    return (reply[48] * 256 + reply[49]) / 4.0;
  }
  /// The bytes of a key of type flt.
  Bytes value(const char* name) {
    EXPECT_EQ(read(name, 4, typeFlt), done) << name;
    return {&reply[48], &reply[52]};
  }

  /// A system root of this process. Must be there before anything asks for a system path.
  static std::string makeRoot() {
    const auto folder =
        std::filesystem::temp_directory_path() / ("smc-" + std::to_string(getpid()));
    setenv("QUORVANE_ROOT", folder.c_str(), 1);
    return folder;
  }

  const std::string root = makeRoot();
  const std::string path = systemPath(smcPath);
  const std::string trace = path + ".trace";
  std::chrono::nanoseconds now{1h};
  Record reply{};
  SimulatedSMC::Clock clock = [this] { return now; };
  SimulatedSMC smc{path, clock};
};

TEST_F(SimulatedSMCTest, AnswersAsHardwareDoes) {
  edit("F1Mn", [](SMCMachine&, Key& key) { key.attributes = attributeWritable; });
  EXPECT_EQ(info("F0Tg"), done);
  EXPECT_EQ(loadLittleEndian<std::uint32_t>(&reply[28]), 4U);
  EXPECT_EQ(loadLittleEndian<std::uint32_t>(&reply[32]), typeFlt);
  EXPECT_EQ(reply[36], 192);
  EXPECT_EQ(read("FNum", 1, typeUi8), done);
  EXPECT_EQ(reply[48], 2);
  EXPECT_EQ(write("F0Tg", rpm2500, typeFlt), done);

  EXPECT_EQ(info("F2Tg"), Answer(0, 132));
  EXPECT_EQ(read("F2Tg", 4, typeFlt), Answer(0, 132));
  EXPECT_EQ(write("F2Tg", rpm2500, typeFlt), Answer(0, 132));
  edit("F1Tg", [this](SMCMachine& machine, Key& key) { machine.remove(key, now); });
  EXPECT_EQ(info(""), Answer(0, 132)) << "a free slot is no key";
  EXPECT_EQ(read("F1Mn", 4, typeFlt), Answer(0, 133));
  EXPECT_EQ(write("FNum", {9}, typeUi8), Answer(0, 134));
  EXPECT_EQ(write("F0Tg", {1, 2}, typeFlt), Answer(0, 135));
  EXPECT_EQ(write("F0Tg", rpm1350, typeFpe2), Answer(0, 135));
  EXPECT_EQ(read("F0Tg", 2, typeFlt), Answer(0, 135));
  EXPECT_EQ(value("F0Tg"), rpm2500) << "a refused write left something behind";

  const Record bad = request(8, "F0Tg", 4, typeFlt), good = request(5, "F0Tg", 4, typeFlt);
  const auto raw = [&](const Record& record, std::uint32_t selector, std::size_t in,
                       std::size_t out) {
    return smc.callStructMethod(selector, record.data(), in, reply.data(), &out);
  };
  EXPECT_EQ(raw(good, 2, 80, 80), KERN_SUCCESS);
  EXPECT_EQ(raw(bad, 2, 80, 80), kIOReturnBadArgument);
  EXPECT_EQ(raw(good, 3, 80, 80), kIOReturnBadArgument);
  EXPECT_EQ(raw(good, 2, 79, 80), kIOReturnBadArgument);
  EXPECT_EQ(raw(good, 2, 80, 79), kIOReturnBadArgument);
}

TEST_F(SimulatedSMCTest, InjectedFailuresHitReadsAndWritesAndLeaveTheValue) {
  const std::tuple<Failure, std::int32_t, Answer> rows[] = {
      {Failure::result, 200, Answer(0, 200)},
      {Failure::call, kIOReturnTimeout, Answer(kIOReturnTimeout, 0)}};
  for (const auto& [failure, number, answer] : rows) {
    inject("F0Tg", failure, number);
    EXPECT_EQ(write("F0Tg", rpm2500, typeFlt), answer);
    EXPECT_EQ(read("F0Tg", 4, typeFlt), answer);
    EXPECT_EQ(info("F0Tg"), done);
    EXPECT_EQ(read("F1Tg", 4, typeFlt), done);
  }
  inject("F0Tg", Failure::none, 0);
  EXPECT_EQ(value("F0Tg"), rpm1350);
}

TEST_F(SimulatedSMCTest, TraceHasALineForEachStructCall) {
  info("F0Tg");
  EXPECT_FALSE(std::filesystem::exists(trace)) << "never made, only appended to";
  std::ofstream(trace) << "before\n";
  info("F0Tg");
  info("F9Tg");
  read("FNum", 1, typeUi8);
  read("FNum", 2, typeUi8);
  write("F0Tg", rpm2500, typeFlt);
  write("FNum", {9}, typeUi8);
  write("F \x1f\xff", Bytes(32, 0xAB), typeUi8);
  read("F", 0, 0);
  inject("F0Tg", Failure::call, kIOReturnError);
  write("F0Tg", rpm2500, typeFlt);
  std::filesystem::remove(path);
  read("FNum", 1, typeUi8);
  EXPECT_EQ(content(trace),
            "before\n"
            "info F0Tg 4 666c7420 192 - -> 0 0\n"
            "info F9Tg 0 00000000 0 - -> 0 132\n"
            "read FNum 1 75693820 192 02 -> 0 0\n"
            "read FNum 2 75693820 192 - -> 0 135\n"
            "write F0Tg 4 666c7420 192 00401c45 -> 0 0\n"
            "write FNum 1 75693820 192 09 -> 0 134\n"
            "write F\\x20\\x1f\\xff 32 75693820 192 "
            "abababababababababababababababababababababababababababababababab -> 0 132\n"
            "read \\x00\\x00\\x00F 0 00000000 192 - -> 0 132\n"
            "write F0Tg 4 666c7420 192 00401c45 -> -536870212 0\n"
            "read FNum 1 75693820 192 - -> -536870208 0\n");
}

TEST_F(SimulatedSMCTest, FansFollowModeAndTargetWithInertia) {
  create(2, typeFpe2);
  const auto setTarget = [this](int rpm) {
    const Bytes data{static_cast<std::uint8_t>(rpm >> 6), static_cast<std::uint8_t>(rpm << 2)};
    EXPECT_EQ(write("F0Tg", data, typeFpe2), done);
  };
  const auto setMode = [this](std::uint8_t mode) {
    EXPECT_EQ(write("F0Md", {mode}, typeUi8), done);
  };
  const auto actualAfter = [this](std::chrono::nanoseconds time) {
    now += time;
    return speed("F0Ac");
  };
  setTarget(2500);
  EXPECT_EQ(actualAfter(10s), 1350) << "a target alone moves nothing";
  setMode(1);
  EXPECT_EQ(actualAfter(2s), 1850);
  for (int i = 0; i < 10000; ++i) {  // A flood of renewals must not hold the fan up.
    now += 100us;
    setMode(1);
  }
  EXPECT_NEAR(actualAfter(0s), 2100, 0.25);
  EXPECT_EQ(actualAfter(10s), 2500);
  setTarget(9999);
  EXPECT_EQ(actualAfter(60s), 5900) << "the maximum";
  setTarget(0);
  EXPECT_EQ(actualAfter(60s), 1350) << "the minimum";
  setTarget(2500);
  now += 60s;
  setMode(0);
  EXPECT_EQ(actualAfter(1s), 2250);
  EXPECT_EQ(actualAfter(60s), 1350) << "automatic";
  EXPECT_EQ(speed("F1Ac"), 1400) << "the other fan";
  setMode(1);
  now = 1s;
  EXPECT_EQ(actualAfter(0s), 2500) << "another boot since";
}

TEST_F(SimulatedSMCTest, OddValuesAreHarmless) {
  edit("F0Md", [](SMCMachine&, Key& key) { key.data[0] = 1; });
  const Bytes notFinite[] = {{0, 0, 0xC0, 0x7F}, {0, 0, 0x80, 0x7F}, {0, 0, 0x80, 0xFF}};
  for (const Bytes& target : notFinite) {
    EXPECT_EQ(write("F0Tg", target, typeFlt), done);
    now += 60s;
    EXPECT_EQ(value("F0Ac"), rpm1350);
  }
  edit("F0Ac", [this](SMCMachine& machine, Key& key) {
    machine.changedAt = now;
    key.data.fill(0x7F);
  });
  EXPECT_EQ(value("F0Ac"), Bytes(4)) << "bytes that are no speed";
}

TEST_F(SimulatedSMCTest, ADamagedFileIsAnErrorResult) {
  const std::string whole = content(path);
  const auto with = [whole](std::size_t offset, char byte) {
    std::string changed = whole;
    changed[offset] = byte;
    return changed;
  };
  const std::string damaged[] = {"",
                                 whole.substr(0, 24),
                                 whole.substr(0, whole.size() - 1),
                                 with(0, 'X'),
                                 with(8, 2),
                                 with(12, 80),
                                 with(23, '\x80'),
                                 with(24 + 4, 33),
                                 with(24 + 13, 3)};
  for (const std::string& bytes : damaged) {
    std::ofstream(path, std::ios::trunc) << bytes;
    EXPECT_EQ(read("FNum", 1, typeUi8), Answer(kIOReturnError, 0)) << &bytes - damaged;
    EXPECT_EQ(write("F0Md", {1}, typeUi8), Answer(kIOReturnError, 0)) << &bytes - damaged;
  }
  std::filesystem::remove(path);
  EXPECT_EQ(info("FNum"), Answer(kIOReturnNoDevice, 0));
  EXPECT_TRUE(iokit::publishedServices().empty());
}

/// Enough that without the lock a few go wrong.
constexpr int roundCount = 2000;

/// Opens the keys endpoint, writes and reads F0Tg again and again, and closes it.
void useOwnConnection(std::uint8_t seed) {
  io_iterator_t iterator = 0;
  IOServiceGetMatchingServices(kIOMainPortDefault, IOServiceMatching("AppleSMC"), &iterator);
  const io_service_t decoy = IOIteratorNext(iterator), service = IOIteratorNext(iterator);
  io_name_t decoyName, name;
  ASSERT_EQ(IORegistryEntryGetName(decoy, decoyName), KERN_SUCCESS);
  ASSERT_EQ(IORegistryEntryGetName(service, name), KERN_SUCCESS);
  EXPECT_STRNE(decoyName, "AppleSMCKeysEndpoint");
  EXPECT_STREQ(name, "AppleSMCKeysEndpoint");
  io_connect_t connection = 0;
  EXPECT_NE(IOServiceOpen(decoy, mach_task_self(), 0, &connection), KERN_SUCCESS);
  EXPECT_NE(IOServiceOpen(service, mach_task_self(), 1, &connection), KERN_SUCCESS);
  ASSERT_EQ(IOServiceOpen(service, mach_task_self(), 0, &connection), KERN_SUCCESS);
  for (int i = 0; i < roundCount; ++i) {
    const Bytes data = {static_cast<std::uint8_t>(i), seed, 0, 0};
    for (const Record& record :
         {request(6, "F0Tg", 4, typeFlt, data), request(5, "F0Tg", 4, typeFlt)}) {
      Record reply{};
      std::size_t size = reply.size();
      ASSERT_EQ(IOConnectCallStructMethod(connection, 2, &record, 80, &reply, &size), KERN_SUCCESS);
    }
  }
  IOServiceClose(connection);
  for (const io_object_t object : {decoy, service, iterator}) IOObjectRelease(object);
}

TEST_F(SimulatedSMCTest, ClientsAtOnceSeeOneMachineAndTraceInTheOrderOfEffects) {
  std::ofstream(trace).flush();
  std::thread other(useOwnConnection, 1);
  useOwnConnection(2);
  other.join();
  EXPECT_EQ(iokit::referenceCount(), 0U);
  std::istringstream lines(content(trace));
  std::string operation, line, written;
  int count = 0;
  while (lines >> operation && std::getline(lines, line)) {
    if (operation == "write") written = line;
    ASSERT_EQ(line, written) << "a read saw something else than the write before it";
    ++count;
  }
  EXPECT_EQ(count, 2 * 2 * roundCount);
}

TEST_F(SimulatedSMCTest, TheToolEditsTheMachineAndSaysWhenItCannot) {
  const auto smcsim = [](const std::string& arguments) {
    const std::string command = SMCSIM " " + arguments + " >/dev/null 2>&1";
    return WEXITSTATUS(std::system(command.c_str()));
  };
  const std::pair<const char*, int> rows[] = {{"--help", 0},
                                              {"", 2},
                                              {"paint", 2},
                                              {"create --fans 17", 2},
                                              {"create --fans", 2},
                                              {"create --speed-type ui8", 2},
                                              {"show --wait", 2},
                                              {"set F0Tg", 2},
                                              {"set F0Tg xy", 2},
                                              {"set F0Tg 0", 2},
                                              {"set F0Tg 0040", 1},
                                              {"set F5Tg 00401c45", 1},
                                              {"remove F0", 2},
                                              {"remove F5Tg", 1},
                                              {"fail F0Tg", 2},
                                              {"fail F0Tg result 256", 2},
                                              {"fail F0Tg call", 2},
                                              {"fail F0Tg call 0", 2},
                                              {"show", 0},
                                              {"set F0Tg 00401c45", 0},
                                              {"remove F1Tg", 0},
                                              {"fail F0Md result 134", 0},
                                              {"fail FNum call 7", 0}};
  for (const auto& [arguments, status] : rows) EXPECT_EQ(smcsim(arguments), status) << arguments;
  EXPECT_EQ(value("F0Tg"), rpm2500);
  EXPECT_EQ(info("F1Tg"), Answer(0, 132));
  EXPECT_EQ(write("F0Md", {1}, typeUi8), Answer(0, 134));
  EXPECT_EQ(read("FNum", 1, typeUi8), Answer(7, 0));
  EXPECT_EQ(smcsim("fail FNum clear"), 0);
  EXPECT_EQ(read("FNum", 1, typeUi8), done);
  EXPECT_EQ(smcsim("create --speed-type fpe2 --fans 11"), 0);
  EXPECT_EQ(speed("F10Mn"), 1850) << "made anew, keys past fan 9 by their last four characters";
  std::filesystem::remove(path);
  EXPECT_EQ(smcsim("show"), 1);
}

}  // namespace
}  // namespace quorvane::simulation
