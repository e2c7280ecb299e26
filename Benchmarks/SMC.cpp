// What HelperSMC adds to a driver's call, in this process.
#include <array>
#include <cstring>

#include "Groups.h"
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

/// The floor: the driver's call alone, with a record for the key.
class DriverCall {
 public:
  DriverCall(std::string_view key, std::uint8_t command) {
    iokit::publishedServices().front().open(0, client);
    const std::uint32_t code = fourCC(key);
    std::memcpy(record.data(), &code, sizeof code);
    record[42] = command;
  }

  void operator()() const {
    std::array<std::uint8_t, 80> reply{};
    std::size_t size = reply.size();
    client->callStructMethod(2, record.data(), record.size(), reply.data(), &size);
  }

 private:
  std::unique_ptr<iokit::UserClient> client;
  std::array<std::uint8_t, 80> record{};
};

}  // namespace

void measureSMC(Report& report, const Setting& setting) {
  Report::progress("HelperSMC");
  HelperSMC smc;
  smc.connect();
  const DriverCall read("FNum", 5);
  const DriverCall write("F0Tg", 6);
  Samples reads, bareReads, writes, bareWrites;
  for (int round = 0; round < setting.rounds(500); ++round) {
    reads.add(nanoseconds([&smc] { smc.readByte("FNum"); }));
    bareReads.add(nanoseconds(read));
    writes.add(nanoseconds([&smc] { smc.writeRPM("F0Tg", 2500); }));
    bareWrites.add(nanoseconds(write));
  }
  report.add({"HelperSMC read, fast driver", "ns", std::move(reads), std::move(bareReads)});
  report.add({"HelperSMC write, fast driver", "ns", std::move(writes), std::move(bareWrites)});
}

}  // namespace quorvane::bench
