// A machine for tests, behind the IOKit calls: keys as state, failures on demand, and a record of
// what was asked. One instance, reset by each test; not for calls from several threads at once.
#pragma once

#include <IOKit/IOKitLib.h>

#include <algorithm>
#include <array>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace quorvane {

struct ScriptedSMC {
  using Bytes = std::vector<std::uint8_t>;
  using Record = std::array<std::uint8_t, 80>;
  /// The command byte of a struct call.
  enum class Operation : std::uint8_t { read = 5, write = 6, info = 9 };
  /// Which calls a failure is for: those of a key with an operation.
  using Which = std::pair<std::string, Operation>;

  struct Call {
    Operation operation;
    std::string key;  // the four characters of the key code
    Record request;
  };
  struct Failure {
    kern_return_t status = KERN_SUCCESS;
    std::uint8_t result = 0;
    std::size_t replySize = 80;  // the bytes that the reply is said to have
  };

  /// No keys, no failures, no calls; the services of a real machine.
  void reset() { *this = {}; }

  /// Names and types have four characters. `bytes`, at most 32, are the start of a read's data
  /// area, zeros behind them; the size, at most 255, need not fit them.
  void addKey(const std::string& name, const std::string& type, std::uint32_t size,
              std::uint8_t attributes, const Bytes& bytes = {}) {
    Record& key = keys[name] = {};
    key[28] = static_cast<std::uint8_t>(size);
    std::copy(type.rbegin(), type.rend(), &key[32]);
    key[36] = attributes;
    std::copy(bytes.begin(), bytes.end(), &key[48]);
  }
  void removeKey(const std::string& name) { keys.erase(name); }
  /// The keys with which a fan is forced: Tg, of type "flt " or "fpe2", and Md.
  void addFan(int index, const std::string& speedType) {
    const std::string fan = "F" + std::to_string(index);
    addKey(fan + "Tg", speedType, speedType == "flt " ? 4 : 2, 0xC0);
    addKey(fan + "Md", "ui8 ", 1, 0xC0);
  }
  void setFanCount(std::uint8_t count) { addKey("FNum", "ui8 ", 1, 0x80, {count}); }
  /// As many bytes as the key's size says, which is at most 32.
  Bytes value(const std::string& name) {
    const Record& key = keys.at(name);
    return {&key[48], &key[48] + key[28]};
  }

  /// The call itself fails with a kernel return code.
  void failCalls(const Which& which, kern_return_t code) { failures[which] = {code, 0, 80}; }
  /// The SMC answers with a result byte. Nothing is written.
  void failResults(const Which& which, std::uint8_t code) { failures[which] = {0, code, 80}; }
  void heal() { failures.clear(); }

  /// Struct calls since they were last taken, failed ones included.
  std::vector<Call> takeCalls() { return std::exchange(calls, {}); }

  /// The AppleSMC services, in order; the name of an empty one cannot be read. Only one that is
  /// named like the second can be opened, and answers so.
  std::vector<std::string> serviceNames = {"AppleSMCSensorEndpoint", "AppleSMCKeysEndpoint"};
  kern_return_t openStatus = KERN_SUCCESS;

  /// Called ahead of each write, where there is somebody to call.
  std::function<void()> beforeWrite;

  /// What a good reply looks like, by key name.
  std::map<std::string, Record> keys;
  std::map<Which, Failure> failures;
  std::vector<Call> calls;
};

/// The machine that iokit::publishedServices() offers in this test program.
ScriptedSMC& machine();

}  // namespace quorvane
