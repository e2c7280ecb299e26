// What the helper must do, told a second time: from what it promises, with no line of its code. Is
// told what befalls the helper, and holds against that what the helper was seen to do, deed by
// deed. How an SMC call ended is taken from the deed: faults are the world's, not the helper's.
// Owned by the simulation.
#pragma once

#include <algorithm>
#include <bit>
#include <chrono>
#include <deque>
#include <functional>
#include <optional>
#include <set>
#include <vector>

#include "Support/ScriptedSMC.h"

namespace quorvane::simulation {

using namespace std::chrono_literals;
using Time = std::chrono::nanoseconds;
using Bytes = ScriptedSMC::Bytes;
using Record = ScriptedSMC::Record;
/// How often the runs came into each situation; 0 for one that could have come up and never did.
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
inline std::string describe(const Record& request) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string text(request.rend() - 4, request.rend());
  for (const std::uint8_t byte : request) text += {digits[byte >> 4], digits[byte & 15]};
  return text;
}

/// All that throws, throws Mismatch.
class Model {
 public:
  /// `deeds` is what was seen and is still to be held against the model, which takes it away.
  Model(std::deque<Deed>& deeds, Coverage& covered) : seen(deeds), coverage(covered) {}

  /// A process starts, after the end of the one before: its whole start-up.
  void start(bool smcOpens) {
    known.clear();
    forced.clear();
    line.clear();
    endPeriod();
    isAlive = true;
    smcOpen = smcOpens;
    line.emplace_back([this] {
      restore("startup baseline");
      const unsigned fans = fanCount().value_or(0);
      audit("helper 1.0.0 started; model=Mac14,2 fans=" + std::to_string(fans));
    });
    run(/*shutdown=*/false);
  }
  /// A request gets in line; a ping is answered at once.
  void submit(const Request& request) {
    if (!isAlive) return;
    if (request.kind == Request::Kind::ping) return reply(request, "ok 1.0.0");
    line.emplace_back([this, request] {
      if (request.kind == Request::Kind::write) return write(request);
      if (request.kind == Request::Kind::status) return reply(request, statusReport());
      restore("app requested");
      reply(request, "true");
    });
  }
  /// Time goes by with nothing running: what falls due gets in line.
  void pass(Time span) {
    now += span;
    const bool leaseFirst = lease && cap && lease->due < cap->due;
    if (leaseFirst) comeDue(lease);
    comeDue(cap);  // of equals the first, because it is older
    if (!leaseFirst) comeDue(lease);
  }
  /// Everything in line has its turn, and behind it a shutdown if one is asked for.
  void run(bool shutdown) {
    if (shutdown) {
      line.emplace_back([this] {
        restore("shutdown");
        isAlive = false;
      });
    }
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
  /// In order.
  std::vector<Time> deadlines() const {
    std::vector<Time> all;
    for (const auto& timer : {lease, cap}) {
      if (isAlive && timer && !timer->inLine) all.push_back(timer->due);
    }
    std::ranges::sort(all);
    return all;
  }

  /// The machine as the helper must have left it; to be set at the beginning.
  std::map<std::string, Record> keys;
  Time now{};
  bool isAlive = false;

 private:
  struct Died {};
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

  void write(const Request& request) {
    const auto& [kind, key, value, isFloat, id] = request;
    if (!smcOpen) return reply(request, "false SMC not open");
    const auto fan = fanOfKey(key);
    if (!fan) {
      audit("REJECTED non-fan key " + key);
      return reply(request, "false Refused: " + key + " is not a fan-control key");
    }
    const bool isTarget = key[2] == 'T';
    if (isTarget && (value < 0 || value > 12000)) return reply(request, "false RPM out of range");
    if (!isTarget && (isFloat || value < 0 || value > 1)) {
      return reply(request, "false Bad mode value");
    }
    const Error error =
        isTarget ? writeSpeed(key, value) : writeMode(key, static_cast<std::uint8_t>(value));
    if (error) {
      restore("write error");
      return reply(request, "false " + *error);
    }
    if (isTarget || value == 1) {
      forced.insert(*fan);
      lease = Timer{now + 20s, "lease expired", "lease expired — fail-safe"};
      if (!cap) cap = Timer{now + 1800s, "hard cap", "max manual duration reached — fail-safe"};
    } else {
      forced.erase(*fan);
      if (forced.empty()) endPeriod();
    }
    audit("write " + key + "=" + std::to_string(value));
    reply(request, "true");
  }
  std::string statusReport() {
    const std::string fans = std::to_string(fanCount().value_or(0));
    return std::string("version=1.0.0;model=Mac14,2;smcOpen=") + (smcOpen ? "1" : "0") +
           ";fanCount=" + fans + ";forcedFans=" + joined(forced, ",") + ";leaseSeconds=20;";
  }
  void restore(const std::string& reason) {
    if (!smcOpen) return;
    ++coverage.at(reason);
    std::set<int> owed = forced;
    if (forced.empty()) {
      const int count = std::max<int>(1, fanCount().value_or(0));
      for (int fan = 0; fan < count; ++fan) owed.insert(fan);
    }
    for (const int fan : owed) writeMode("F" + std::to_string(fan) + "Md", 0);
    const std::string list = joined(forced, ", ");
    if (!forced.empty()) audit("restore → automatic (" + reason + "); fans=[" + list + "]");
    forced.clear();
    endPeriod();
  }
  void endPeriod() {
    lease.reset();
    cap.reset();
  }
  void comeDue(std::optional<Timer>& timer) {
    if (!timer || timer->inLine || timer->due > now) return;
    timer->inLine = true;
    line.emplace_back([this, &timer, expired = *timer] {
      if (!timer || timer->due != expired.due) {
        ++coverage.at("expiry overtaken");
        return;
      }
      audit(expired.text);
      restore(expired.reason);
    });
  }

  std::optional<std::uint8_t> fanCount() {
    const auto info = smcOpen ? keyInfo("FNum") : std::nullopt;
    if (!info) return std::nullopt;
    const auto call = expectCall(makeRequest("FNum", 5, *info));
    if (!isAnswer(call) || info->front() == 0) return std::nullopt;
    return call.reply[48];
  }
  Error writeMode(const std::string& key, std::uint8_t mode) {
    const auto info = keyInfo(key);
    if (!info || info->front() == 0 || info->front() > 32) return "keyMissing";
    Bytes payload(info->front());
    payload.back() = mode;
    return send(key, *info, payload);
  }
  Error writeSpeed(const std::string& key, std::int64_t rpm) {
    const auto info = keyInfo(key);
    const std::string type = info ? std::string(info->rbegin() + 1, info->rend() - 4) : "";
    const bool isFloat = type == "flt " && info->front() >= 4;
    if (!isFloat && type != "fpe2") return "keyMissing";
    // "fpe2" counts quarters, and begins with the high byte.
    Bytes payload{static_cast<std::uint8_t>(rpm >> 6), static_cast<std::uint8_t>(rpm << 2)};
    if (isFloat) {
      const auto bits = std::bit_cast<std::array<std::uint8_t, 4>>(static_cast<float>(rpm));
      payload.assign(bits.begin(), bits.end());
    }
    return send(key, *info, payload);
  }
  Error send(const std::string& key, const Info& info, const Bytes& payload) {
    Record request = makeRequest(key, 6, info);
    std::copy(payload.begin(), payload.end(), &request[48]);
    const auto call = expectCall(request);
    if (call.status != KERN_SUCCESS) return "callFailed(" + std::to_string(call.status) + ")";
    if (call.reply[40] != 0) return "resultError(" + std::to_string(call.reply[40]) + ")";
    return std::nullopt;
  }
  std::optional<Info> keyInfo(const std::string& key) {
    if (const auto found = known.find(key); found != known.end()) return found->second;
    const auto call = expectCall(makeRequest(key, 9));
    if (!isAnswer(call)) return std::nullopt;
    Info& info = known[key];
    std::copy_n(&call.reply[28], info.size(), info.begin());
    return info;
  }

  /// The SMC answers a read of a value or of key information with what was asked for.
  static bool isAnswer(const ScriptedSMC::Call& call) {
    return call.status == KERN_SUCCESS && call.replySize >= 48 && call.reply[40] == 0;
  }
  /// Of the twenty keys that a client may write.
  static std::optional<int> fanOfKey(const std::string& key) {
    if (key.size() != 4 || key[0] != 'F' || key[1] < '0' || key[1] > '9') return std::nullopt;
    if (!key.ends_with("Md") && !key.ends_with("Tg")) return std::nullopt;
    return key[1] - '0';
  }
  static Record makeRequest(const std::string& key, std::uint8_t command, const Info& info = {}) {
    Record request{};
    std::copy_n(key.rbegin(), 4, request.begin());  // it knows a key by its last four bytes
    std::copy(info.begin(), info.end(), &request[28]);
    request[42] = command;
    return request;
  }
  static std::string joined(const std::set<int>& fans, const char* separator) {
    std::string list;
    for (const int fan : fans) list += (list.empty() ? "" : separator) + std::to_string(fan);
    return list;
  }

  void reply(const Request& request, const std::string& answer) {
    expect("reply " + std::to_string(request.id) + " " + answer);
  }
  void audit(const std::string& message) { expect("audit " + message); }
  ScriptedSMC::Call expectCall(const Record& request) {
    const Deed deed = expect(describe(request));
    if (deed.call.applied) std::copy_n(&request[48], 32, &keys.at(deed.call.key)[48]);
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
  bool smcOpen = false;
  std::deque<std::function<void()>> line;
  std::map<std::string, Info> known;
  std::set<int> forced;
  std::optional<Timer> lease;
  std::optional<Timer> cap;
};

}  // namespace quorvane::simulation
