// Instructions that a request takes in user space, counted by valgrind: the same on a noisy
// machine.
#include <csignal>
#include <fstream>

#include "Floor.h"
#include "Groups.h"

namespace quorvane::bench {
namespace {

constexpr int requestCount = 1000;

std::vector<std::string> callgrind(const std::string& log) {
  return {"env",       "LD_PRELOAD=" PIDFD_UNDER_VALGRIND, "valgrind",         "--tool=callgrind",
          "--vgdb=no", "--callgrind-out-file=/dev/null",   "--log-file=" + log};
}

double collected(const std::string& log) {
  std::ifstream lines(log);
  const std::string label = "Collected : ";
  for (std::string line; std::getline(lines, line);) {
    const std::size_t found = line.find(label);
    if (found != std::string::npos) return std::stod(line.substr(found + label.size()));
  }
  fail("callgrind has counted nothing");
}

/// From start to end with one client and its requests.
double ofHelper(const Machine& machine, const std::string& request, int count) {
  const std::string log = machine.root + "/callgrind.log";
  std::vector<std::string> command = callgrind(log);
  command.push_back(programsFolder() + "/" + Helper::fast);
  Program helper(command, machine.root);
  helper.waitForLine("listening");
  {
    Channel channel = machine.enter();
    for (int i = 0; i < count; ++i) channel.call(request);
  }
  helper.stop(SIGTERM);
  return collected(log);
}

double ofFloor(const Machine& machine, FloorWork work, const std::string& request, int count) {
  const std::string log = machine.root + "/callgrind.log";
  Floor floor(work, machine.root, 1, callgrind(log));
  for (int i = 0; i < count; ++i) floor.channels.front().call(request);
  floor.channels.clear();
  floor.server.wait();
  return collected(log);
}

}  // namespace

void measureInstructions(Report& report, const Setting& setting) {
  struct Call {
    const char* what;
    std::string request;
    FloorWork work;
  };
  const Machine machine = setting.machine("instructions");
  const double nothing = ofHelper(machine, "", 0);
  for (const Call& call :
       {Call{"ping", pingRequest(), FloorWork::echo},
        Call{"status, fast driver", statusRequest(), FloorWork::hop},
        Call{"write, fast driver", writeRequest("F0Tg", 2500), FloorWork::hopAndLine}}) {
    Report::progress(std::string("instructions, ") + call.what);
    Samples measured, bare;
    measured.add((ofHelper(machine, call.request, requestCount) - nothing) / requestCount);
    bare.add((ofFloor(machine, call.work, call.request, requestCount) -
              ofFloor(machine, call.work, call.request, 0)) /
             requestCount);
    report.add(
        {std::string("instructions of a ") + call.what, "", std::move(measured), std::move(bare)});
  }
}

}  // namespace quorvane::bench
