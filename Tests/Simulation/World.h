// What surrounds the helper: a machine that fails at random, a file system that refuses audit
// lines, and deaths of the process, all drawn from one seed. Sees all that the helper does, and
// keeps a trace. One instance at a time, owned by the simulation.
#pragma once

#include <initializer_list>
#include <random>

#include "Simulation/Model.h"

namespace quorvane::simulation {

/// Passes through the helper's code as its process dies.
struct ProcessDied {};

class World {
 public:
  World(std::uint64_t seed, const TemporaryRoot& folder, Coverage& covered);

  std::uint64_t below(std::uint64_t limit) { return random() % limit; }
  bool oneIn(unsigned many) { return below(many) == 0; }
  /// Whether a situation comes up now: never in this phase, or once in a number of times that is
  /// drawn too, and is a multiple of `least`.
  bool happens(const std::string& situation, unsigned least);
  template <class T>
  T pick(std::initializer_list<T> from) {
    return from.begin()[below(from.size())];
  }
  Time pause(unsigned milliseconds) { return std::chrono::milliseconds(below(milliseconds + 1)); }

  /// All is well, and stays so while it is calm; other things happen at other rates otherwise.
  void startPhase(bool calm);
  /// Something may change in the machine that stays so.
  void changeMachine();

  void processStarts();
  /// A client of this process asks for a write.
  void asks(const std::string& key) { asked.insert(key); }
  void saw(Deed deed);
  /// Nothing is left in line.
  void checkLeases() const;
  /// Where the audit log lies for the line that is to be written now.
  std::string auditPath(std::string_view path);
  /// What was written there since.
  void readAudit();
  void note(const std::string& line);

  Outcome outcome;
  /// The last lines of what happened.
  std::deque<std::string> trace;
  unsigned fanCount = 0;
  bool isDead = true, isCalm = true;
  std::deque<Deed> seen;

 private:
  ScriptedSMC::Failure fate(const ScriptedSMC::Call& call);
  void ended(const ScriptedSMC::Call& call);
  void checkCall(const ScriptedSMC::Call& call);
  void arrangeAudit(const std::string& situation);

  const TemporaryRoot& root;
  Coverage& coverage;
  std::mt19937_64 random;
  /// Of this phase, by situation: one in so many, or 0.
  std::map<std::string, unsigned> rates;
  /// By key: 132, it is gone, or 134, it refuses to be written.
  std::map<std::string, std::uint8_t> broken;
  bool isAuditPending = false, isRecordable = true;

  std::set<std::string> asked;
  /// By mode key, when this process wrote 1 to it. Gone once it has tried to write 0, or could not
  /// even try because the SMC refused it the key's information.
  std::map<std::string, Time> forcedSince;
  Time renewed{};
};

}  // namespace quorvane::simulation
