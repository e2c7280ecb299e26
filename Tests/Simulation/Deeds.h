// What is asked of the helper and what it is seen to do: the words that the model, the promises and
// the simulation share.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>

#include "Support/ScriptedSMC.h"

namespace quorvane::simulation {

using Time = std::chrono::nanoseconds;
using Keys = std::map<std::string, ScriptedSMC::Record>;
/// How often the runs came into each situation.
using Coverage = std::map<std::string, std::uint64_t>;

struct Request {
  enum class Kind : std::uint8_t { write, restore, status, ping };
  Kind kind = Kind::write;
  std::string key{};
  std::int64_t value = 0;
  bool isFloat = false;
  int id = 0;
};

/// A call to the SMC, an audit line or a reply.
struct Deed {
  std::string text{};
  /// Of a call.
  ScriptedSMC::Call call{};
  Time took{};
  /// Of a reply: which request's.
  int request = 0;
  /// Of an audit line: the file system takes it.
  bool recordable = true;
  /// The process died: of a call, behind it where it was applied, else before it; of an audit line,
  /// before it.
  bool died = false;
};

/// The helper did something else than it should.
struct Mismatch {
  std::string expected, actual;
};

inline void require(bool good, const std::string& expected, const std::string& actual) {
  if (!good) throw Mismatch{expected, actual};
}

/// The SMC answers a read of a value or of key information with what was asked for.
inline bool isAnswer(const ScriptedSMC::Call& call) {
  return call.status == KERN_SUCCESS && call.replySize >= 48 && call.reply[40] == 0;
}

}  // namespace quorvane::simulation
