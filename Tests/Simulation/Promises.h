// What the helper promises whoever owns the fans, checked where it counts: on the calls that reach
// the SMC, without any account of what the helper should be doing.
#pragma once

#include <set>

#include "Simulation/Deeds.h"

namespace quorvane::simulation {

/// All that throws, throws Mismatch.
class Promises {
 public:
  void processStarts();
  /// Its start-up is over, with an SMC.
  void processStarted() const;
  void asks(const Request& request) { asked[request.id] = request; }
  void saw(const Deed& deed, Time now);
  /// Nothing is left in line.
  void atRest(Time now, const Keys& keys) const;

 private:
  void sawWrite(const ScriptedSMC::Call& call, int fan, Time now);
  void letGo(int fan, bool worked);
  [[nodiscard]] bool isAsked(const std::string& key, std::int64_t least, std::int64_t most) const;

  std::map<int, Request> asked;  // and not answered
  /// Fans forced with success, and not given back since.
  std::set<int> held;
  /// Fans that it held in this turn until it failed to find their mode keys.
  std::set<int> unreached;
  Time opened{}, renewed{};
  /// Fans that the process has tried to put into automatic mode.
  std::set<int> tried;
  /// Fans of which nothing is promised now: the SMC refused, or told an untruth, or a process died.
  std::set<int> excused;
  /// As the SMC said last, and before the process touched a fan; 1 where it did not.
  int counted = 1, countedFirst = 1;
};

}  // namespace quorvane::simulation
