// What the helper must do, told a second time: from what it promises, with no line of its code. Is
// told what befalls the helper, and holds against that what the helper was seen to do, deed by
// deed. How an SMC call ended is taken from the deed: faults are the world's, not the helper's.
#pragma once

#include <deque>
#include <functional>
#include <optional>
#include <set>
#include <vector>

#include "Simulation/Simulation.h"
#include "Support/ScriptedSMC.h"

namespace quorvane::simulation {

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
  std::string text;
  /// Of a call.
  ScriptedSMC::Call call{};
  Time took{};
  /// The process died: behind a call that was applied, else before it.
  bool died = false;
};

/// The helper did something else than it should.
struct Mismatch {
  std::string expected, actual;
};

inline void require(bool good, const std::string& expected, const std::string& actual) {
  if (!good) throw Mismatch{expected, actual};
}

/// How a request to the SMC reads as a deed: its key, and its bytes.
std::string describe(const ScriptedSMC::Record& request);

/// All that throws, throws Mismatch.
class Model {
 public:
  /// `deeds` is what was seen and is still to be held against the model, which takes it away.
  Model(std::deque<Deed>& deeds, Coverage& covered) : seen(deeds), coverage(covered) {}

  /// A process starts, after the end of the one before: its whole start-up.
  void start(bool smcOpens);
  /// A request gets in line; a ping is answered at once.
  void submit(const Request& request);
  /// Time goes by with nothing running: what falls due gets in line.
  void pass(Time span);
  /// Everything in line has its turn, and behind it a shutdown if one is asked for.
  void run(bool shutdown);
  /// In order.
  [[nodiscard]] std::vector<Time> deadlines() const;

  /// The machine as the helper must have left it; to be set at the beginning.
  std::map<std::string, ScriptedSMC::Record> keys;
  Time now{};
  bool isAlive = false;

 private:
  /// A deadline is of one timer only: each is made later than the one before fell due.
  struct Timer {
    Time due;
    std::string reason;
    std::string text;
    bool inLine = false;
  };
  /// Bytes 28 to 36 of a record: size, type, attributes.
  using Info = std::array<std::uint8_t, 9>;
  using Error = std::optional<std::string>;

  void write(const Request& request);
  std::string statusReport();
  void restore(const std::string& reason);
  void endPeriod();
  void comeDue(std::optional<Timer>& timer);

  std::optional<std::uint8_t> fanCount();
  Error writeMode(const std::string& key, std::uint8_t mode);
  Error writeSpeed(const std::string& key, std::int64_t rpm);
  Error send(const std::string& key, const Info& info, const ScriptedSMC::Bytes& payload);
  std::optional<Info> keyInfo(const std::string& key);

  void reply(const Request& request, const std::string& answer);
  void audit(const std::string& message) { expect("audit " + message); }
  ScriptedSMC::Call expectCall(const ScriptedSMC::Record& request);
  Deed expect(const std::string& text);

  std::deque<Deed>& seen;
  Coverage& coverage;
  bool smcOpen = false;
  std::deque<std::function<void()>> line;
  std::map<std::string, Info> known;
  std::set<int> forced;
  std::optional<Timer> lease;
  std::optional<Timer> cap;
};

}  // namespace quorvane::simulation
