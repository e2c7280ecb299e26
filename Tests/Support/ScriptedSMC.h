// A machine for tests, behind the IOKit calls: keys as state, failures on demand, and a record of
// what was asked. One instance, reset by each test; not for calls from several threads at once.
#pragma once

#include <IOKit/IOKitLib.h>

#include <algorithm>
#include <array>
#include <cstdint>
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

  struct Call {
    Operation operation;
    std::string key;  // the four characters of the key code
    Record request;
    kern_return_t status = KERN_SUCCESS;
    std::size_t replySize = 80;
    Record reply{};
    bool applied = false;  // the key has the value of this write

    [[nodiscard]] bool isFanMode() const { return isFanKey() && key.ends_with("Md"); }
    /// Whether it is of one of the twenty keys.
    [[nodiscard]] bool isFanKey() const {
      return key[0] == 'F' && key[1] >= '0' && key[1] <= '9' &&
             (key.ends_with("Md") || key.ends_with("Tg"));
    }
  };
  struct Failure {
    kern_return_t status = KERN_SUCCESS;
    std::uint8_t result = 0;
    std::size_t replySize = 80;  // the bytes that the reply is said to have
    bool applied = false;        // a failed write takes effect all the same
  };

  /// No keys, no calls, nobody who is asked; the services of a real machine.
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
  void setFanCount(std::uint8_t count) { addKey("FNum", "ui8 ", 1, 0x80, {count}); }

  /// Struct calls since they were last taken, failed ones included.
  std::vector<Call> takeCalls() { return std::exchange(calls, {}); }

  /// The AppleSMC services, in order; the name of an empty one cannot be read. Only one that is
  /// named like the second can be opened, and answers so.
  std::vector<std::string> serviceNames = {"AppleSMCSensorEndpoint", "AppleSMCKeysEndpoint"};
  kern_return_t openStatus = KERN_SUCCESS;

  /// Where they are set: says how a call fails, and hears how it ended. What they throw passes
  /// through the driver, as for a process that dies.
  std::function<Failure(const Call&)> fate;
  std::function<void(const Call&)> ended;

  /// What a good reply looks like, by key name.
  std::map<std::string, Record> keys;
  std::vector<Call> calls;
};

/// The machine that iokit::publishedServices() offers in this test program.
ScriptedSMC& machine();

}  // namespace quorvane
