// What HelperSMC adds to a driver's call, in this process.
#include <array>
#include <cstring>

#include "Groups.h"
#include "Platform/Linux/Drivers/SimulatedSMC.h"
#include "Platform/Linux/IOKitRegistry.h"
#include "QuorvaneFanHelper/HelperSMC.h"

namespace quorvane::bench {
namespace {

constexpr int callsASample = 200;

/// Nanoseconds of one call. The clock is too coarse for a single one.
template <class Call>
double nanoseconds(const Call& call) {
  const auto start = Clock::now();
  for (int i = 0; i < callsASample; ++i) call();
  return microsecondsSince(start) * 1000 / callsASample;
}

class DriverCall {
 public:
  DriverCall(std::unique_ptr<iokit::UserClient> opened, std::uint8_t command)
      : client(std::move(opened)) {
    const std::uint32_t code = fourCC(command == 6 ? "F0Tg" : "FNum");
    std::memcpy(record.data(), &code, sizeof code);
    const std::uint32_t size = command == 6 ? 4 : 1;
    const std::uint32_t type = fourCC(command == 6 ? "flt " : "ui8 ");
    std::memcpy(&record[28], &size, sizeof size);
    std::memcpy(&record[32], &type, sizeof type);
    record[42] = command;
  }

  void operator()() const {
    std::array<std::uint8_t, 80> reply{};
    std::size_t size = reply.size();
    client->callStructMethod(2, record.data(), record.size(), reply.data(), &size);
    if (reply[40] != 0) fail("the driver refuses");
  }

 private:
  std::unique_ptr<iokit::UserClient> client;
  std::array<std::uint8_t, 80> record{};
};

std::unique_ptr<iokit::UserClient> openFastDriver() {
  std::unique_ptr<iokit::UserClient> client;
  iokit::publishedServices().front().open(0, client);
  return client;
}

}  // namespace

void measureSMC(Report& report, const Setting& setting) {
  Report::progress("HelperSMC");
  HelperSMC smc;
  smc.connect();
  const DriverCall read(openFastDriver(), 5);
  const DriverCall write(openFastDriver(), 6);
  const Machine machine = setting.machine("driver");
  const std::string file = machine.root + "/var/lib/quorvane/smc";
  const DriverCall simulatedRead(std::make_unique<simulation::SimulatedSMC>(file), 5);
  const DriverCall simulatedWrite(std::make_unique<simulation::SimulatedSMC>(file), 6);
  Samples reads, bareReads, writes, bareWrites, simulatedReads, simulatedWrites;
  for (int round = 0; round < setting.rounds(500); ++round) {
    reads.add(nanoseconds([&smc] { smc.readByte("FNum"); }));
    bareReads.add(nanoseconds(read));
    writes.add(nanoseconds([&smc] { smc.writeRPM("F0Tg", 2500); }));
    bareWrites.add(nanoseconds(write));
    simulatedReads.add(nanoseconds(simulatedRead));
    simulatedWrites.add(nanoseconds(simulatedWrite));
  }
  report.add({"HelperSMC read, fast driver", "ns", std::move(reads), std::move(bareReads)});
  report.add({"HelperSMC write, fast driver", "ns", std::move(writes), std::move(bareWrites)});
  report.add({"simulated SMC's own read", "ns", std::move(simulatedReads)});
  report.add({"simulated SMC's own write", "ns", std::move(simulatedWrites)});
}

}  // namespace quorvane::bench
