// The helper's environment: a machine that fails at random, and deaths of the process, drawn from
// one seed. It records the helper's deeds and keeps a trace. Owned by the simulation; one instance
// at a time.
#pragma once

#include <random>

#include "Simulation/Model.h"
#include "Support/VirtualDispatch.h"

namespace quorvane::simulation {

class World {
 public:
  World(std::uint64_t seed, Coverage& covered) : coverage(covered), random(seed) {
    current = this;
    machine().reset();
    machine().serve = [this](ScriptedSMC::Call& call) { serve(call); };
    fanCount = 1 + static_cast<unsigned>(below(10));
    machine().addKey("TC0P", "sp78", 2, 0x80, {40, 0});
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
  /// Returns whether a situation occurs now. Each phase draws a situation's rate: never, or one in
  /// a multiple of `least`. In a calm phase none occurs.
  bool happens(const std::string& situation, unsigned least) {
    std::uint64_t& count = coverage[situation];
    if (isCalm) return false;
    const auto rate = rates.try_emplace(situation, least * pick({0U, 1U, 5U, 25U})).first->second;
    if (rate == 0 || !oneIn(rate)) return false;
    ++count;
    note(situation);
    return true;
  }

  /// Starts a phase with the correct fan count and new rates.
  void startPhase(bool calm) {
    isCalm = calm;
    rates.clear();
    machine().setFanCount(static_cast<std::uint8_t>(fanCount));
  }
  /// May change the reported number of fans until the phase ends.
  void changeFanCount() {
    if (!happens("fan count lies", 20)) return;
    const std::uint32_t size = pick({0U, 1U, 2U, 33U});
    machine().addKey("FNum", "ui8 ", size, 0x80, {pick<std::uint8_t>({0, 1, 2, 10, 11, 255})});
  }

  /// Records a deed. Throws Died if the process dies after it, or is dead and the deed is lost.
  void saw(Deed deed) {
    if (isDead) throw Died{};
    note(deed.text);
    isDead = deed.died;
    seen.push_back(std::move(deed));
    if (isDead) throw Died{};
  }
  void note(const std::string& line) {
    trace.push_back(line);
    if (trace.size() > 40) trace.pop_front();
  }

  /// The world of the current run.
  static inline World* current = nullptr;
  /// The last 40 lines.
  std::deque<std::string> trace;
  /// The deeds that the model has not compared yet.
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
    if (!oneIn(20)) machine().addKey(name + "Md", "ui8 ", modeSize, 0xD0);
  }

  void serve(ScriptedSMC::Call& call) {
    if (isDead) throw Died{};
    fail(call);
    machine().answer(call);
    const Bytes payload(call.request.begin() + 48, call.request.end());
    Deed deed{describe(call.key, call.request[42], payload), call};
    deed.died = happens("death", 150);
    if (happens("slow call", 20)) deed.took = pick<Time>({1ms, 1s, 25s});
    virtualdispatch::elapse(deed.took);
    saw(std::move(deed));
  }
  void fail(ScriptedSMC::Call& call) {
    if (happens("result byte", 20)) call.reply[40] = pick<std::uint8_t>({1, 132, 134});
    if (happens("short reply", 20)) call.replySize = pick({0UL, 47UL, 48UL, 79UL});
    if (happens("kernel error", 20)) call.status = pick({kIOReturnTimeout, 5});
  }

  Coverage& coverage;
  std::mt19937_64 random;
  /// The rates of this phase, by situation: n for one in n, 0 for never.
  std::map<std::string, unsigned> rates;
};

}  // namespace quorvane::simulation
