#include "Simulation/Simulation.h"

#include <algorithm>
#include <limits>
#include <memory>

#include "QuorvaneFanHelper/FanHelperService.h"
#include "Simulation/World.h"
#include "Support/VirtualDispatch.h"

namespace quorvane::simulation {
namespace {

using namespace std::chrono_literals;
using Kind = Request::Kind;

struct Client {
  std::string fan;
  Time silentUntil{};
};

class Simulation {
 public:
  Simulation(std::uint64_t seed, const TemporaryRoot& root, Coverage& coverage);
  ~Simulation() { endProcess(); }
  void run();

  World world;

 private:
  void step();
  void act(Client& client);
  Request drawNonsense();

  void startProcess();
  void endProcess();
  void submit(Request request);
  void jump(Time span);
  void idle(Time span);
  void settle();
  void runAndCompare();

  Model model;
  std::vector<Client> clients;
  int stepsOfPhase = 0, requests = 0;
  unsigned longestPause = 0;  // in milliseconds
  std::shared_ptr<FanHelperService> service;
  bool isOver = false;  // asked to end, and so it did
};

Simulation::Simulation(std::uint64_t seed, const TemporaryRoot& root, Coverage& coverage)
    : world(seed, root, coverage), model(world.seen, coverage) {
  virtualdispatch::reset();
  model.keys = machine().keys;
  for (auto count = 1 + world.below(4); count > 0; --count) {
    const auto fan = world.below(world.oneIn(8) ? 10 : std::max<unsigned>(1, world.fanCount));
    clients.push_back({"F" + std::to_string(fan)});
  }
}

void Simulation::run() {
  startProcess();
  for (auto steps = 500 + world.below(1000); steps > 0; --steps) step();
  world.startPhase(/*calm=*/true);
  settle();
  idle(20s);
  require(virtualdispatch::deadlines().empty(), "no timer past the last lease", "one");
  isOver = true;
  settle();
  for (const auto& [name, record] : machine().keys) {
    const bool isMode = name.ends_with("Md") && record[28] >= 1 && record[28] <= 32;
    require(!isMode || record[47U + record[28]] == 0, "automatic fans at rest", name);
  }
}

void Simulation::step() {
  if (stepsOfPhase-- == 0) {
    // A cap is reached only where one client renews for half an hour and nobody disturbs it.
    const bool isCalm = world.oneIn(5);
    stepsOfPhase = isCalm ? 450 : 10 + static_cast<int>(world.below(100));
    longestPause = isCalm ? 9000 : world.pick({3000U, 12'000U, 30'000U, 100'000U});
    world.startPhase(isCalm);
  }
  for (auto left = world.isCalm ? 1 : 1 + world.below(4); left > 0; --left) {
    act(world.isCalm ? clients.front() : clients[world.below(clients.size())]);
    if (world.happens("suspended with work in line", 3)) jump(world.pause(longestPause));
  }
  world.changeMachine();
  isOver = world.happens("signal", 50);
  settle();
  const auto due = model.deadlines();
  if (!due.empty() && world.happens("suspended past a deadline", 3)) {
    return jump(world.pick({due.front(), due.back()}) - model.now - world.pick({0ns, 1ns}));
  }
  idle(world.pause(world.happens("long idle", 200) ? 3'600'000 : longestPause));
}

void Simulation::act(Client& client) {
  if (client.silentUntil > model.now && !world.isCalm) return;
  if (world.happens("falls silent", 3)) {
    client.silentUntil = model.now + world.pause(90'000);
  } else if (world.happens("talks nonsense", 3)) {
    submit(drawNonsense());
  } else if (world.happens("asks", 3)) {
    submit({world.pick({Kind::status, Kind::ping})});
  } else if (world.happens("releases", 3)) {
    submit({Kind::write, client.fan + "Md", 0});
  } else if (world.happens("restores", 3)) {
    submit({Kind::restore});
  } else if (world.oneIn(2)) {
    submit({Kind::write, client.fan + "Md", 1});
  } else {
    const auto rpm = world.oneIn(3) ? world.pick({0UL, 12000UL}) : world.below(12001);
    submit({Kind::write, client.fan + "Tg", static_cast<int>(rpm), world.oneIn(2)});
  }
}

Request Simulation::drawNonsense() {
  using Limits = std::numeric_limits<std::int64_t>;
  Request odd{Kind::write, "F" + std::to_string(world.below(10))};
  odd.key += world.pick({"Md", "Tg"});
  odd.value = world.pick<std::int64_t>({-1, 0, 1, 2, 256, 12001, Limits::min(), Limits::max()});
  odd.isFloat = world.oneIn(2);
  if (world.oneIn(3)) odd.key[world.below(4)] = static_cast<char>(world.below(256));
  if (world.oneIn(3)) {
    odd.key = world.pick({"", "FNum", "F+Md", "FAMd", "F0Tx", "f0Md", "F0md", "F10Tg", "F0M",
                          "F0Md ", "F:Md", "F/Md", "F\u0660Md", "F0Md\u0301", "TC0P", "\n"});
  }
  return odd;
}

void Simulation::startProcess() {
  while (world.isDead) {
    const bool smcOpens = !world.happens("no SMC", 3);
    machine().openStatus = smcOpens ? KERN_SUCCESS : kIOReturnNotPrivileged;
    isOver = false;
    world.processStarts();
    service = std::make_shared<FanHelperService>();
    try {
      service->startup();
      virtualdispatch::runUntilIdle();
    } catch (const ProcessDied&) {
    }
    world.readAudit();
    model.start(smcOpens);
    if (world.isDead) endProcess();
  }
}

void Simulation::endProcess() {
  world.isDead = true;
  service.reset();
  virtualdispatch::drain();
}

void Simulation::submit(Request request) {
  request.id = ++requests;
  const auto& [kind, key, value, isFloat, id] = request;
  world.note("request " + std::to_string(id) + " " + key + "=" + std::to_string(value));
  if (kind == Kind::write) world.asks(key);
  const auto reply = [this, number = id](const std::string& answer) {
    if (!world.isDead) world.saw({.text = "reply " + std::to_string(number) + " " + answer});
  };
  const auto outcome = [reply](bool good, const std::optional<std::string>& message) {
    reply((good ? "true" : "false") + (message ? " " + *message : ""));
  };
  const auto report = [reply](const StatusReport& status) {
    std::string answer;
    for (const auto& [name, text] : status) answer += name + "=" + text + ";";
    reply(answer);
  };
  if (kind == Kind::write) service->writeFanKey(key, value, isFloat, outcome);
  if (kind == Kind::restore) service->restoreAuto(outcome);
  if (kind == Kind::status) service->status(report);
  if (kind == Kind::ping) service->ping(reply);
  model.submit(request);
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
  const std::weak_ptr<FanHelperService> last = service;
  endProcess();
  require(last.expired(), "no service outlives its process", "a timer keeps it");
  jump(world.pause(100'000));
  startProcess();
}

void Simulation::runAndCompare() {
  try {
    if (isOver && model.isAlive) service->shutdownReleasing();
    virtualdispatch::runUntilIdle();
  } catch (const ProcessDied&) {
  }
  world.readAudit();
  model.run(isOver);
  world.outcome.simulated = model.now;
  require(model.isAlive == !(world.isDead || isOver), "the same end", "another");
  require(virtualdispatch::now() == model.now, "the same time", "another");
  for (const auto& [name, record] : machine().keys) {
    require(name == "FNum" || record == model.keys.at(name), "another value", "this of " + name);
  }
  if (world.isDead) return;
  require(virtualdispatch::deadlines() == model.deadlines(), "other timers", "these");
  world.checkLeases();
}

}  // namespace

Outcome simulate(std::uint64_t seed, const TemporaryRoot& root, Coverage& coverage) {
  Simulation simulation(seed, root, coverage);
  Outcome& outcome = simulation.world.outcome;
  try {
    simulation.run();
  } catch (const Mismatch& mismatch) {
    for (const std::string& line : simulation.world.trace) outcome.failure += line + "\n";
    outcome.failure += "expected: " + mismatch.expected + "\nactual:   " + mismatch.actual;
  }
  return outcome;
}

}  // namespace quorvane::simulation
