// What surrounds the helper: a machine that fails at random, and deaths of the process, all drawn
// from one seed. Sees all that the helper does, and keeps a trace. Owned by the simulation; one
// instance at a time.
#pragma once

#include <initializer_list>
#include <random>

#include "Simulation/Model.h"
#include "Support/VirtualDispatch.h"

namespace quorvane::simulation {

/// Passes through the helper's code as its process dies.
struct ProcessDied {};

class World {
 public:
  World(std::uint64_t seed, Coverage& covered) : coverage(covered), random(seed) {
    current = this;
    ScriptedSMC& smc = machine();
    smc.reset();
    smc.fate = [this](const ScriptedSMC::Call& call) { return fate(call); };
    smc.ended = [this](const ScriptedSMC::Call& call) { ended(call); };
    fanCount = static_cast<unsigned>(below(11));
    smc.addKey("TC0P", "sp78", 2, 0x80, {40, 0});
    for (unsigned fan = 0; fan < fanCount; ++fan) addFan("F" + std::to_string(fan));
    startPhase(/*calm=*/true);
  }

  std::uint64_t below(std::uint64_t limit) { return random() % limit; }
  bool oneIn(unsigned many) { return below(many) == 0; }
  template <typename T>
  T pick(std::initializer_list<T> from) {
    return from.begin()[below(from.size())];
  }
  Time pause(unsigned milliseconds) { return std::chrono::milliseconds(below(milliseconds + 1)); }
  /// Whether a situation comes up now: never in this phase, or once in a number of times that is
  /// drawn too, and is a multiple of `least`.
  bool happens(const std::string& situation, unsigned least) {
    std::uint64_t& count = coverage[situation];
    if (isCalm) return false;
    const auto [rate, isNew] = rates.try_emplace(situation);
    if (isNew) rate->second = least * pick({0U, 1U, 5U, 25U});
    if (rate->second == 0 || !oneIn(rate->second)) return false;
    ++count;
    note(situation);
    return true;
  }

  /// All is well, and stays so while it is calm; other things happen at other rates otherwise.
  void startPhase(bool calm) {
    isCalm = calm;
    rates.clear();
    broken.clear();
    machine().setFanCount(static_cast<std::uint8_t>(fanCount));
  }
  /// Something may change in the machine that stays so.
  void changeMachine() {
    const std::string fan = "F" + std::to_string(below(10));
    const std::string key = pick({std::string("FNum"), fan + "Md", fan + "Tg"});
    if (happens("key gone", 20)) broken[key] = 132;
    if (happens("key refuses writes", 20)) broken[key] = 134;
    if (!happens("fan count lies", 20)) return;
    const std::uint32_t size = pick({0U, 1U, 2U, 33U});
    machine().addKey("FNum", "ui8 ", size, 0x80, {pick<std::uint8_t>({0, 1, 2, 10, 11, 255})});
  }

  /// The helper does something. Nobody sees what is left of a dead process.
  void saw(Deed deed) {
    if (isDead) throw ProcessDied{};
    note(deed.text);
    isDead = deed.died;
    seen.push_back(std::move(deed));
    if (isDead) throw ProcessDied{};
  }
  void note(const std::string& line) {
    hash = 31 * hash + std::hash<std::string>()(line);
    trace.push_back(std::to_string(virtualdispatch::now().count()) + " " + line);
    if (trace.size() > 40) trace.pop_front();
  }

  /// The one that the helper lives in.
  static inline World* current = nullptr;
  /// Of all that happened.
  std::uint64_t hash = 0;
  /// The last lines of what happened.
  std::deque<std::string> trace;
  /// What the helper did and the model has not taken yet.
  std::deque<Deed> seen;
  unsigned fanCount = 0;
  bool isDead = true;
  bool isCalm = true;

 private:
  void addFan(const std::string& name) {
    const std::string type = oneIn(16) ? "hex_" : pick({"flt ", "fpe2"});
    const std::uint32_t size = oneIn(16) ? pick({1U, 2U, 8U}) : type == "flt " ? 4 : 2;
    if (!oneIn(20)) machine().addKey(name + "Tg", type, size, 0xC0, {1, 2, 3, 4});
    const std::uint32_t modeSize = oneIn(16) ? pick({0U, 2U, 32U, 33U}) : 1;
    const auto mode = pick<std::uint8_t>({0, 1});
    if (!oneIn(20)) machine().addKey(name + "Md", "ui8 ", modeSize, 0xD0, {mode});
  }

  ScriptedSMC::Failure fate(const ScriptedSMC::Call& call) {
    if (isDead) throw ProcessDied{};
    if (happens("death before a call", 300)) {
      saw({.text = describe(call.request), .call = call, .died = true});
    }
    const bool isWrite = call.operation == ScriptedSMC::Operation::write;
    const auto found = broken.find(call.key);
    if (found != broken.end() && (found->second == 132 || isWrite)) {
      return {.result = found->second};
    }
    const bool isApplied = isWrite && happens("effect despite an error", 20);
    if (isApplied) return {.result = 255, .applied = true};
    if (happens("result byte", 20)) return {.result = pick<std::uint8_t>({1, 132, 134})};
    if (happens("short reply", 20)) return {.replySize = pick({0UL, 47UL, 48UL, 79UL})};
    if (!happens("kernel error", 20)) return {};
    return {.status = pick({kIOReturnTimeout, kIOReturnBadArgument, 5})};
  }
  void ended(const ScriptedSMC::Call& call) {
    machine().calls.clear();
    Deed deed{.text = describe(call.request), .call = call};
    deed.died = happens("death behind a call", 300);
    if (happens("slow call", 20)) deed.took = pick<Time>({1ms, 1s, 25s});
    virtualdispatch::elapse(deed.took);
    saw(std::move(deed));
  }

  Coverage& coverage;
  std::mt19937_64 random;
  /// Of this phase, by situation: one in so many, or 0.
  std::map<std::string, unsigned> rates;
  /// By key: 132, it is gone, or 134, it refuses to be written.
  std::map<std::string, std::uint8_t> broken;
};

}  // namespace quorvane::simulation
