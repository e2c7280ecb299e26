// What surrounds the helper: a machine that fails at random, a file system that refuses audit
// lines, and deaths of the process, all drawn from one seed. Sees all that the helper does, and
// keeps a trace. One instance at a time, owned by the simulation.
#pragma once

#include <deque>
#include <initializer_list>
#include <random>

#include "Simulation/Promises.h"
#include "Simulation/Simulation.h"

namespace quorvane::simulation {

/// Passes through the helper's code as its process dies.
struct ProcessDied {};

/// One in so many; 0 is never.
struct Rates {
  unsigned callFault = 0, slowCall = 0, auditFault = 0, death = 0, signal = 0, machineFault = 0;
};

class World {
 public:
  World(std::uint64_t seed, std::string folder, Coverage& covered, Outcome& told);

  std::uint64_t below(std::uint64_t limit) { return random() % limit; }
  bool oneIn(unsigned many) { return many != 0 && below(many) == 0; }
  template <typename T>
  T pick(std::initializer_list<T> from) {
    return from.begin()[below(from.size())];
  }
  Time pause(unsigned milliseconds) { return std::chrono::milliseconds(below(milliseconds + 1)); }

  /// Other faults from here on; none that would end a manual period where it is calm.
  void drawRates(bool isCalm);
  /// Something changes in the machine that stays so.
  void machineActs();
  /// No more faults.
  void heal();

  void saw(Deed deed);
  /// Where the audit log lies for the line that is to be written now.
  std::string auditPath(std::string_view path);
  /// What was written there since.
  void readAudit();
  void note(const std::string& line);

  Coverage& coverage;
  Outcome& outcome;
  Rates rates{};
  int fans = 0;
  bool isDead = true;
  std::deque<Deed> seen;
  Promises promises;

 private:
  ScriptedSMC::Failure fate(const ScriptedSMC::Call& call);
  void ended(const ScriptedSMC::Call& call);
  void arrangeAudit(std::size_t place);

  std::mt19937_64 random;
  const std::string root;
  /// By key: 132, it is gone, or 134, it refuses to be written.
  std::map<std::string, std::uint8_t> broken;
  bool isAuditPending = false, isRecordable = true;
  std::size_t auditSize = 0;
};

}  // namespace quorvane::simulation
