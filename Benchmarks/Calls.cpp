// Calls one at a time, as a companion makes them.
#include "Floor.h"
#include "Groups.h"

namespace quorvane::bench {
namespace {

constexpr int callsInARow = 200;

struct Pair {
  Samples measured;
  Samples floor;
};

void time(Channel& channel, const std::string& request, Samples& samples) {
  for (int i = 0; i < callsInARow; ++i) {
    const auto start = Clock::now();
    channel.call(request);
    samples.add(microsecondsSince(start));
  }
}

Pair inTurns(int rounds, Channel& measured, Channel& floor, const std::string& request) {
  Pair pair;
  Samples warmUp;
  time(measured, request, warmUp);
  time(floor, request, warmUp);
  for (int round = 0; round < rounds; ++round) {
    time(measured, request, pair.measured);
    time(floor, request, pair.floor);
  }
  return pair;
}

struct Call {
  const char* what;
  std::string request;
  FloorWork floor;
  const char* program;
  Aim aim;
};

}  // namespace

void measureCalls(Report& report, const Setting& setting) {
  const Aim pingAim{"ratio <= 1.15",
                    [](double measured, double floor) { return measured <= 1.15 * floor; }};
  const Aim writeAim{"ratio <= 1.25",
                     [](double measured, double floor) { return measured <= 1.25 * floor; }};
  const std::string write = writeRequest("F0Tg", 2500);
  const std::vector<Call> calls{
      {"ping", pingRequest(), FloorWork::echo, Helper::real, pingAim},
      {"status, fast driver", statusRequest(), FloorWork::hop, Helper::fast, {}},
      {"status, simulated SMC", statusRequest(), FloorWork::hop, Helper::real, {}},
      {"write, fast driver", write, FloorWork::hopAndLine, Helper::fast, writeAim},
      {"write, simulated SMC", write, FloorWork::hopAndLine, Helper::real, {}},
  };
  const Machine machine = setting.machine("calls");
  for (const Call& call : calls) {
    Report::progress(call.what);
    const Helper helper(call.program, machine);
    Floor floor(call.floor, machine.root);
    Channel channel = machine.enter();
    Pair pair = inTurns(setting.rounds(200), channel, floor.channels.front(), call.request);
    report.add({call.what, "us", std::move(pair.measured), std::move(pair.floor), call.aim});
  }

  Report::progress("ping, two cores");
  if (!runOn(otherProcessor)) return;
  const Helper helper(Helper::real, machine);
  Floor floor(FloorWork::echo, machine.root);
  runOn(processor);
  Channel channel = machine.enter();
  Pair pair = inTurns(setting.rounds(100), channel, floor.channels.front(), pingRequest());
  report.add({"ping, two cores", "us", std::move(pair.measured), std::move(pair.floor)});
}

}  // namespace quorvane::bench
