#include "Simulation/Simulation.h"

#include <algorithm>
#include <csignal>
#include <limits>
#include <memory>
#include <numeric>

#include "Platform/Dispatch.h"
#include "Platform/Linux/IOKitRegistry.h"
#include "QuorvaneFanHelper/FanHelperService.h"
#include "Simulation/Model.h"
#include "Simulation/World.h"
#include "Support/FakeSystem.h"
#include "Support/VirtualDispatch.h"

namespace quorvane::simulation {
namespace {

using namespace std::chrono_literals;
using Kind = Request::Kind;

struct Client {
  std::array<unsigned, 5> taste{};  // how much it likes to force, free, ask, be odd, and be silent
  std::string fan;
  bool likesTargets = false;
  Time silentUntil{};
};

class Simulation {
 public:
  Simulation(std::uint64_t seed, const std::string& root, Coverage& covered, Outcome& told);
  ~Simulation() { endProcess(); }
  Simulation(const Simulation&) = delete;
  Simulation& operator=(const Simulation&) = delete;
  void run();

 private:
  void step();
  void act(Client& client);
  void actOddly();
  void moveOn();
  void comeToRest();

  void startProcess();
  void endProcess();
  void submit(Request request);
  void signal(int number);
  void jump(Time span);
  void idle(Time span);
  void settle();
  void runAndCompare();

  World world;
  Coverage& coverage;
  Model model;
  std::vector<Client> clients;
  int stepsOfPhase = 0, requests = 0;
  bool isCalm = false;
  unsigned longestPause = 0;  // in milliseconds
  std::shared_ptr<FanHelperService> service;
  std::vector<std::unique_ptr<dispatch::SignalSource>> signals;
  bool isOver = false, isSignalled = false, smcOpens = true;
};

Simulation::Simulation(std::uint64_t seed, const std::string& root, Coverage& covered,
                       Outcome& told)
    : world(seed, root, covered, told), coverage(covered), model(world.seen, covered) {
  virtualdispatch::reset();
  fakeSystem() = {};
  model.keys = machine().keys;
  clients.resize(1 + world.below(4));
  for (Client& client : clients) {
    const auto fans = world.oneIn(8) ? 10 : static_cast<unsigned>(std::max(1, world.fans));
    client.fan = "F" + std::to_string(world.below(fans));
    client.likesTargets = world.oneIn(2);
    for (unsigned& way : client.taste) way = static_cast<unsigned>(world.below(8));
    client.taste[0] += 4;
  }
}

void Simulation::run() {
  startProcess();
  for (auto steps = 500 + world.below(1000); steps > 0; --steps) step();
  comeToRest();
}

void Simulation::step() {
  if (stepsOfPhase-- == 0) {
    // A cap is reached only where one client renews for half an hour and nobody disturbs it.
    isCalm = world.oneIn(5);
    stepsOfPhase = isCalm ? 450 : 10 + static_cast<int>(world.below(100));
    longestPause = isCalm ? 9000 : world.pick({3000U, 12'000U, 30'000U, 100'000U});
    world.drawRates(isCalm);
  }
  for (auto left = isCalm ? 1 : 1 + world.below(4); left > 0; --left) {
    act(isCalm ? clients.front() : clients[world.below(clients.size())]);
    if (!world.oneIn(6)) continue;
    ++coverage["suspended with work in line"];
    jump(world.pause(longestPause));
  }
  if (world.oneIn(world.rates.machineFault)) world.machineActs();
  if (world.oneIn(world.rates.signal)) signal(world.pick({SIGTERM, SIGINT}));
  settle();
  moveOn();
}

void Simulation::act(Client& client) {
  if (client.silentUntil > model.now) return;
  const auto& taste = client.taste;
  std::size_t way = 0;
  auto left = isCalm ? 0 : world.below(std::accumulate(taste.begin(), taste.end(), 0U));
  while (left >= taste[way]) left -= taste[way++];
  static constexpr std::array names{"force", "free", "ask", "odd request", "silent client"};
  ++coverage[names.at(way)];
  const bool isTarget = isCalm ? client.likesTargets : world.oneIn(2);
  const auto rpm = static_cast<int>(world.oneIn(3) ? world.pick({0U, 12000U}) : world.below(12001));
  if (way == 0 && isTarget) submit({Kind::write, client.fan + "Tg", rpm, world.oneIn(2)});
  if (way == 0 && !isTarget) submit({Kind::write, client.fan + "Md", 1});
  if (way == 1) submit({world.oneIn(3) ? Kind::restore : Kind::write, client.fan + "Md"});
  if (way == 2) submit({world.pick({Kind::status, Kind::ping})});
  if (way == 3) actOddly();
  if (way == 4) client.silentUntil = model.now + world.pause(90'000);
}

void Simulation::actOddly() {
  using Limits = std::numeric_limits<std::int64_t>;
  Request odd{Kind::write, "F" + std::to_string(world.below(10))};
  odd.key += world.pick({"Md", "Tg"});
  odd.value = world.pick<std::int64_t>({-1, 0, 1, 2, 256, 12001, Limits::min(), Limits::max()});
  odd.isFloat = world.oneIn(2);
  const auto kind = world.below(3);
  if (kind == 0) odd.key[world.below(4)] = static_cast<char>(world.below(256));
  if (kind == 1) {
    odd.key = world.pick({"", "FNum", "F+Md", "FAMd", "F0Tx", "f0Md", "F0md", "F10Tg", "F0M",
                          "F0Md ", "F:Md", "F/Md", "F\u0660Md", "F0Md\u0301", "TC0P", "\n"});
    odd.key.append(world.oneIn(8) ? 300 : 0, '\0');
  }
  submit(odd);
}

void Simulation::moveOn() {
  const auto due = model.deadlines();
  const Time toLast = due.size() == 2 ? due.back() - model.now : 0ns;
  // So that the next renewal runs out at the very moment of the cap.
  if (isCalm && toLast > 20s && toLast < 36s) return idle(toLast - 20s);
  if (due.size() == 2 && due.back() - due.front() < 20s && world.oneIn(2)) return jump(toLast);
  if (!isCalm && !due.empty() && world.oneIn(4)) {
    ++coverage["suspended to a deadline"];
    return jump(due.front() - model.now - world.pick({0ns, 1ns}));
  }
  const bool isLong = !isCalm && world.oneIn(200);
  if (isLong) ++coverage["long idle"];
  idle(world.pause(isLong ? 3'600'000 : longestPause));
}

void Simulation::comeToRest() {
  world.heal();
  settle();
  idle(20s);
  require(virtualdispatch::deadlines().empty(), "no timer past the last lease", "one");
  signal(SIGTERM);
  settle();
  idle(1801s);
  for (const auto& [name, record] : machine().keys) {
    require(!name.ends_with("Md") || record[47 + record[28]] == 0, "automatic fans", name);
  }
}

void Simulation::startProcess() {
  while (world.isDead) {
    world.isDead = isOver = isSignalled = false;
    smcOpens = world.rates.machineFault == 0 || !world.oneIn(4);
    if (!smcOpens) ++coverage["no SMC"];
    const bool isNamed = smcOpens || world.oneIn(2);
    machine().serviceNames = {"AppleSMCSensorEndpoint", isNamed ? "AppleSMCKeysEndpoint" : ""};
    machine().openStatus = smcOpens ? KERN_SUCCESS : kIOReturnNotPrivileged;
    world.note("process starts");
    world.promises.processStarts();
    service = std::make_shared<FanHelperService>();
    try {
      service->startup();
    } catch (const ProcessDied&) {
      ++coverage["death in start-up"];
    }
    world.readAudit();
    model.start(smcOpens);
    if (world.isDead) endProcess();
  }
  if (smcOpens) world.promises.processStarted();
  for (const int number : {SIGTERM, SIGINT}) {
    signals.push_back(std::make_unique<dispatch::SignalSource>(number, [this] {
      if (!isOver) service->shutdownReleasing();
      isOver = true;
    }));
  }
}

void Simulation::endProcess() {
  static mach_port_t lastClosed = 0;
  world.isDead = true;
  signals.clear();
  service.reset();
  virtualdispatch::drain();
  fakeSystem().log.clear(), model.log.clear();
  while (iokit::referenceCount() > 0) IOObjectRelease(++lastClosed);  // as the kernel does
}

void Simulation::submit(Request request) {
  request.id = ++requests;
  static constexpr std::array kinds{"asks to write ", "asks for automatic ", "asks ", "pings "};
  world.note(kinds.at(static_cast<std::size_t>(request.kind)) + std::to_string(request.id) + " " +
             request.key + "=" + std::to_string(request.value));
  world.promises.asks(request);
  const auto reply = [this, id = request.id](const std::string& answer) {
    if (world.isDead) return;
    world.saw({.text = "reply " + std::to_string(id) + " " + answer, .request = id});
  };
  const auto outcome = [reply](bool good, const std::optional<std::string>& message) {
    reply((good ? "true" : "false") + (message ? " " + *message : ""));
  };
  const auto report = [reply](const StatusReport& status) {
    std::string answer;
    for (const auto& [key, value] : status) answer += key + "=" + value + ";";
    reply(answer);
  };
  const auto& [kind, key, value, isFloat, id] = request;
  if (kind == Kind::write) service->writeFanKey(key, value, isFloat, outcome);
  if (kind == Kind::restore) service->restoreAuto(outcome);
  if (kind == Kind::status) service->status(report);
  if (kind == Kind::ping) service->ping(reply);
  model.submit(request);
}

void Simulation::signal(int number) {
  world.note("signal " + std::to_string(number));
  virtualdispatch::deliverSignal(number);
  isSignalled = true;
}

void Simulation::jump(Time span) {
  if (span <= 0ns) return;
  world.note("asleep for " + std::to_string(span.count()));
  virtualdispatch::elapse(span);
  model.pass(span);
}

void Simulation::idle(Time span) {
  const Time end = model.now + span;
  while (model.now < end) {
    const auto due = model.deadlines();
    jump((due.empty() ? end : std::min(end, due.front())) - model.now);
    settle();
  }
}

void Simulation::settle() {
  runAndCompare();
  if (!world.isDead && !isOver) {
    submit({Kind::status});
    runAndCompare();
  }
  if (!world.isDead && !isOver) return;
  if (!world.isDead) {  // nothing more, though the process may take a while to end
    submit({Kind::write, "F0Md", 1});
    jump(1800s);
    runAndCompare();
  }
  endProcess();
  jump(world.pause(100'000));
  startProcess();
}

void Simulation::runAndCompare() {
  try {
    virtualdispatch::runUntilIdle();
  } catch (const ProcessDied&) {
  }
  world.readAudit();
  model.run(std::exchange(isSignalled, false));
  world.outcome.simulated = model.now;
  require(model.isAlive == !(world.isDead || isOver), "the same end", "another");
  require(virtualdispatch::now() == model.now, "the same time", "another");
  for (const auto& [name, record] : machine().keys) {
    require(name == "FNum" || record == model.keys.at(name), "another value", "this of " + name);
  }
  require(fakeSystem().log == model.log, "the same messages", "others");
  if (world.isDead) return;
  std::string timers, expected;
  for (const Time due : virtualdispatch::deadlines()) timers += std::to_string(due.count()) + " ";
  for (const Time due : model.deadlines()) expected += std::to_string(due.count()) + " ";
  require(timers == expected, "timers due at " + expected, timers);
  require(iokit::referenceCount() == (smcOpens ? 1 : 0), "one connection", "not one");
  world.promises.atRest(model.now, machine().keys);
}

}  // namespace

void simulate(std::uint64_t seed, const std::string& root, Coverage& coverage, Outcome& outcome) {
  Simulation(seed, root, coverage, outcome).run();
}

}  // namespace quorvane::simulation
