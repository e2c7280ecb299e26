// One run: the real service and HelperSMC on the virtual dispatch and a machine that fails at
// random. Clients, signals, deaths and restarts are drawn from one seed. After each event the Model
// checks the helper's deeds. One run at a time.
#pragma once

#include <limits>

#include "QuorvaneFanHelper/FanHelperService.h"
#include "Simulation/World.h"

namespace quorvane::simulation {

class Simulation {
 public:
  using Kind = Request::Kind;

  Simulation(std::uint64_t seed, Coverage& coverage)
      : world(seed, coverage), model(world.seen, coverage) {}
  ~Simulation() { endProcess(); }

  /// Returns the simulated time. Throws Mismatch.
  Time run() {
    startProcess();
    for (auto steps = 500 + world.below(1000); steps > 0; --steps) step();
    world.startPhase(/*calm=*/true);
    settle(/*shutdown=*/true);
    for (const auto& [name, record] : machine().keys) {
      const bool isMode = name.ends_with("Md") && record[28] >= 1 && record[28] <= 32;
      require(!isMode || record[47U + record[28]] == 0, "automatic fans at rest", name);
    }
    return model.now;
  }

  World world;

 private:
  void step() {
    if (stepsOfPhase == 0) startPhase();
    --stepsOfPhase;
    for (auto left = world.isCalm ? 1 : 1 + world.below(4); left > 0; --left) {
      act("F" + std::to_string(world.isCalm ? 0 : world.below(world.fanCount)));
      if (world.happens("suspended with work in line", 3)) jump(world.pause(longestPause));
    }
    world.changeFanCount();
    settle(world.happens("signal", 50));
    const auto due = model.deadlines();
    if (!due.empty() && world.happens("suspended past a deadline", 3)) {
      jump(world.pick({due.front(), due.back()}) - world.pick({0ns, 1ns}));
    } else {
      idle(world.pause(world.happens("long idle", 200) ? 3'600'000 : longestPause));
    }
  }
  /// Only a calm phase reaches a hard cap: one client must renew undisturbed for half an hour.
  void startPhase() {
    const bool isCalm = world.oneIn(5);
    stepsOfPhase = isCalm ? 450 : 10 + static_cast<int>(world.below(100));
    longestPause = isCalm ? 9000 : world.pick({3000U, 12'000U, 30'000U, 100'000U});
    world.startPhase(isCalm);
  }

  /// Submits a request of that fan's client.
  void act(const std::string& fan) {
    if (world.happens("talks nonsense", 3)) {
      submit(drawNonsense());
    } else if (world.happens("asks", 3)) {
      submit({Kind::status});
    } else if (world.happens("releases", 3)) {
      submit({Kind::write, fan + "Md", 0});
    } else if (world.happens("restores", 3)) {
      submit({Kind::restore});
    } else if (world.oneIn(2)) {
      submit({Kind::write, fan + "Md", 1});
    } else {
      const auto rpm = world.oneIn(3) ? world.pick({0UL, 12000UL}) : world.below(12001);
      submit({Kind::write, fan + "Tg", static_cast<int>(rpm), world.oneIn(2)});
    }
  }
  Request drawNonsense() {
    using Limits = std::numeric_limits<std::int64_t>;
    Request odd{Kind::write, "F" + std::to_string(world.below(10))};
    odd.key += world.pick({"Md", "Tg"});
    odd.value = world.pick<std::int64_t>({-1, 0, 1, 2, 256, 12001, Limits::min(), Limits::max()});
    odd.isFloat = world.oneIn(2);
    if (world.oneIn(3)) odd.key[world.below(4)] = static_cast<char>(world.below(256));
    if (world.oneIn(3)) odd.key = world.pick({"", "FNum", "F:Md", "F10Tg", "F0M", "F0Md ", "TC0P"});
    return odd;
  }

  void submit(const Request& request) {
    const auto& [kind, key, value, isFloat] = request;
    world.note("request " + key + "=" + std::to_string(value));
    const auto reply = [this](const std::string& answer) { world.saw({"reply " + answer}); };
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
    model.submit(request);
  }
  void jump(Time span) {
    world.note("asleep until " + std::to_string((model.now + span).count()));
    virtualdispatch::elapse(span);
    model.pass(span);
  }
  void idle(Time span) {
    const Time end = model.now + span;
    while (model.now < end) {
      auto due = model.deadlines();
      due.push_back(end - model.now);
      jump(std::ranges::min(due));
      settle();
    }
  }

  /// Completes everything in the queue, then the shutdown if requested. Replaces a process that has
  /// ended.
  void settle(bool shutdown = false) {
    submit({Kind::status});
    if (shutdown) model.shutDown();
    runAndCompare([this, shutdown] {
      if (shutdown) service->shutdownReleasing();
    });
    if (shutdown && !world.isDead) {  // no deed follows, even if the process ends late
      submit({Kind::write, "F0Md", 1});
      jump(1800s);
      runAndCompare([] {});
    }
    if (!shutdown && !world.isDead) return;
    endProcess();
    jump(world.pause(100'000));
    startProcess();
  }
  void startProcess() {
    while (world.isDead) {
      const bool smcOpens = !world.happens("no SMC", 3);
      machine().openStatus = smcOpens ? KERN_SUCCESS : kIOReturnNotPrivileged;
      world.note("process starts");
      world.isDead = false;
      service = std::make_shared<FanHelperService>();
      model.start(smcOpens);
      runAndCompare([this] { service->startup(); });
      if (world.isDead) endProcess();
    }
  }
  void endProcess() {
    world.isDead = true;
    service.reset();
    virtualdispatch::reset();
  }

  /// Runs the event, then everything in the queue, and compares the deeds and timers.
  void runAndCompare(const std::function<void()>& event) {
    try {
      event();
      virtualdispatch::runUntilIdle();
    } catch (const Died&) {
    }
    model.run();
    require(world.isDead || virtualdispatch::deadlines() == model.deadlines(), "its timers",
            "others");
  }

  Model model;
  int stepsOfPhase = 0;
  unsigned longestPause = 0;  // in milliseconds
  std::shared_ptr<FanHelperService> service;
};

}  // namespace quorvane::simulation
