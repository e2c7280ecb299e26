// A second implementation of the helper's promises, without any of the helper's code. It gets the
// same events as the helper and compares the helper's deeds with its own, one by one. The result of
// an SMC call comes from the deed, because faults are the world's, not the helper's. Owned by the
// simulation.
#pragma once

#include <bit>
#include <chrono>
#include <deque>
#include <optional>
#include <set>

#include "Support/ScriptedSMC.h"

namespace quorvane::simulation {

using namespace std::chrono_literals;
using Time = std::chrono::nanoseconds;
using Bytes = ScriptedSMC::Bytes;
using Record = ScriptedSMC::Record;
/// How often each situation occurred; 0 for a possible situation that never occurred.
using Coverage = std::map<std::string, std::uint64_t>;

struct Request {
  enum class Kind : std::uint8_t { write, restore, status };
  Kind kind = Kind::write;
  std::string key{};
  std::int64_t value = 0;
  bool isFloat = false;
};

/// An observed action of the helper: an SMC call, an audit line or a reply.
struct Deed {
  std::string text;
  /// For SMC calls only.
  ScriptedSMC::Call call{};
  Time took{};
  bool died = false;  // the process, after the call
};

/// Thrown through the helper's code, and the model's, when the process dies.
struct Died {};

/// Thrown when the helper's deed is not the expected one.
struct Mismatch {
  std::string expected, actual;
};

inline void require(bool good, const std::string& expected, const std::string& actual) {
  if (!good) throw Mismatch{expected, actual};
}

/// Returns the deed text of an SMC call: the last four bytes of the key, the command, and the data
/// padded to 32 bytes.
inline std::string describe(const std::string& key, int command, Bytes payload) {
  std::string text = key.substr(key.size() - 4) + " " + std::to_string(command);
  payload.resize(32);
  for (const std::uint8_t byte : payload) text += " " + std::to_string(byte);
  return text;
}

/// Methods that find a difference throw Mismatch.
class Model {
 public:
  /// `deeds` are the observed deeds. The model removes each one that it has compared.
  Model(std::deque<Deed>& deeds, Coverage& covered) : seen(deeds), coverage(covered) {}

  /// Starts a process after the end of the previous one.
  void start(bool smcOpens) {
    known.clear();
    forced.clear();
    line.clear();
    timers.clear();
    isAlive = true;
    smcOpen = smcOpens;
    line.emplace_back([this] {
      restore("startup baseline");
      audit("helper 1.0.0 started; model=Mac14,2 fans=" + std::to_string(fanCount()));
    });
  }
  /// Queues a request.
  void submit(const Request& request) {
    if (!isAlive) return;
    line.emplace_back([this, request] {
      if (request.kind == Request::Kind::write) return write(request);
      if (request.kind == Request::Kind::status) return reply(statusReport());
      restore("app requested");
      reply("true");
    });
  }
  /// Queues the shutdown of the process.
  void shutDown() {
    line.emplace_back([this] {
      restore("shutdown");
      isAlive = false;
    });
  }
  /// Lets time pass without running anything. Queues the timers that become due.
  void pass(Time span) {
    now += span;
    for (Timer& timer : timers) {
      if (timer.isInLine || timer.due > now) continue;
      timer.isInLine = true;
      line.emplace_back([this, timer] { expire(timer); });
    }
  }
  /// Runs everything in the queue.
  void run() {
    try {
      while (isAlive && !line.empty()) {
        const auto turn = std::move(line.front());
        line.pop_front();
        turn();
      }
    } catch (const Died&) {
      isAlive = false;
    }
    if (!seen.empty()) throw Mismatch{"nothing more", seen.front().text};
  }
  /// The remaining times of the timers that are not due yet, in order.
  std::vector<Time> deadlines() const {
    std::vector<Time> all;
    for (const Timer& timer : timers) {
      if (isAlive && !timer.isInLine) all.push_back(timer.due - now);
    }
    return all;
  }

  Time now{};

 private:
  struct Timer {
    Time due;
    std::string reason;
    std::string text;
    bool isInLine = false;
    bool operator==(const Timer&) const = default;
  };
  using Error = std::optional<std::string>;

  void write(const Request& request) {
    const auto& [kind, key, value, isFloat] = request;
    if (!smcOpen) return reply("false SMC not open");
    const auto fan = fanOfKey(key);
    if (!fan) {
      audit("REJECTED non-fan key " + key);
      return reply("false Refused: " + key + " is not a fan-control key");
    }
    const bool isTarget = key[2] == 'T';
    if (isTarget && (value < 0 || value > 12000)) return reply("false RPM out of range");
    if (!isTarget && (isFloat || value < 0 || value > 1)) return reply("false Bad mode value");
    const Error error =
        isTarget ? writeSpeed(key, value) : writeMode(key, static_cast<std::uint8_t>(value));
    if (error) {
      restore("write error");
      return reply("false " + *error);
    }
    if (isTarget || value == 1) {
      forced.insert(*fan);
      renew();
    } else {
      forced.erase(*fan);
      if (forced.empty()) timers.clear();
    }
    audit("write " + key + "=" + std::to_string(value));
    reply("true");
  }
  std::string statusReport() {
    return std::string("version=1.0.0;model=Mac14,2;smcOpen=") + (smcOpen ? "1" : "0") +
           ";fanCount=" + std::to_string(fanCount()) + ";forcedFans=" + joined(forced, ",") +
           ";leaseSeconds=20;";
  }
  void restore(const std::string& reason) {
    if (!smcOpen) return;
    ++coverage.at(reason);
    std::set<int> owed = forced;
    const int counted = forced.empty() ? std::max(1, fanCount()) : 0;
    for (int fan = 0; fan < counted; ++fan) owed.insert(fan);
    for (const int fan : owed) writeMode("F" + std::to_string(fan) + "Md", 0);
    const std::string list = joined(forced, ", ");
    if (!forced.empty()) audit("restore → automatic (" + reason + "); fans=[" + list + "]");
    forced.clear();
    timers.clear();
  }
  void renew() {
    std::erase_if(timers, [](const Timer& timer) { return timer.reason == "lease expired"; });
    if (timers.empty()) timers.push_back({now + 1800s, "hard cap", "max manual duration reached"});
    timers.push_back({now + 20s, "lease expired", "lease expired"});
    std::ranges::stable_sort(timers, {}, &Timer::due);
  }
  void expire(const Timer& timer) {
    if (std::ranges::find(timers, timer) == timers.end()) return;  // cancelled meanwhile
    audit(timer.text + " — fail-safe");
    restore(timer.reason);
  }

  int fanCount() {
    const auto info = smcOpen ? keyInfo("FNum") : std::nullopt;
    if (!info) return 0;
    const auto call = expectCall("FNum", 5);
    return isAnswer(call) && sizeIn(*info) > 0 ? call.reply[48] : 0;
  }
  Error writeMode(const std::string& key, std::uint8_t mode) {
    const auto info = keyInfo(key);
    if (!info || sizeIn(*info) == 0 || sizeIn(*info) > 32) return "keyMissing";
    Bytes payload(sizeIn(*info));
    payload.back() = mode;
    return send(key, payload);
  }
  Error writeSpeed(const std::string& key, std::int64_t rpm) {
    const auto info = keyInfo(key);
    if (!info) return "keyMissing";
    const std::string type(info->rend() - 36, info->rend() - 32);
    const bool isFloat = type == "flt " && sizeIn(*info) >= 4;
    if (!isFloat && type != "fpe2") return "keyMissing";
    // "fpe2" counts quarters, high byte first.
    Bytes payload{static_cast<std::uint8_t>(rpm >> 6), static_cast<std::uint8_t>(rpm << 2)};
    if (isFloat) {
      const auto bits = std::bit_cast<std::array<std::uint8_t, 4>>(static_cast<float>(rpm));
      payload.assign(bits.begin(), bits.end());
    }
    return send(key, payload);
  }
  Error send(const std::string& key, const Bytes& payload) {
    const auto call = expectCall(key, 6, payload);
    if (call.status != KERN_SUCCESS) return "callFailed(" + std::to_string(call.status) + ")";
    if (call.reply[40] != 0) return "resultError(" + std::to_string(call.reply[40]) + ")";
    return std::nullopt;
  }
  std::optional<Record> keyInfo(const std::string& key) {
    if (const auto found = known.find(key); found != known.end()) return found->second;
    const auto call = expectCall(key, 9);
    if (!isAnswer(call)) return std::nullopt;
    return known[key] = call.reply;
  }

  /// Whether the reply to a read has the requested value or key information.
  static bool isAnswer(const ScriptedSMC::Call& call) {
    return call.isGood() && call.replySize >= 48;
  }
  static std::uint8_t sizeIn(const Record& info) { return info[28]; }
  /// Returns the fan of one of the twenty keys that a client may write, else nothing.
  static std::optional<int> fanOfKey(const std::string& key) {
    if (key.size() != 4 || key[0] != 'F' || key[1] < '0' || key[1] > '9') return std::nullopt;
    if (!key.ends_with("Md") && !key.ends_with("Tg")) return std::nullopt;
    return key[1] - '0';
  }
  static std::string joined(const std::set<int>& fans, const char* separator) {
    std::string list;
    for (const int fan : fans) list += (list.empty() ? "" : separator) + std::to_string(fan);
    return list;
  }

  void reply(const std::string& answer) { expect("reply " + answer); }
  void audit(const std::string& message) { expect("audit " + message); }
  ScriptedSMC::Call expectCall(const std::string& key, int command, const Bytes& payload = {}) {
    const Deed deed = expect(describe(key, command, payload));
    pass(deed.took);
    if (deed.died) throw Died{};
    return deed.call;
  }
  Deed expect(const std::string& text) {
    if (seen.empty()) throw Mismatch{text, "nothing more"};
    Deed deed = std::move(seen.front());
    seen.pop_front();
    require(deed.text == text, text, deed.text);
    return deed;
  }

  std::deque<Deed>& seen;
  Coverage& coverage;
  bool isAlive = false;
  bool smcOpen = false;
  std::deque<std::function<void()>> line;
  std::map<std::string, Record> known;
  std::set<int> forced;
  std::vector<Timer> timers;  // by deadline, then by age
};

}  // namespace quorvane::simulation
