// A machine for tests, behind the IOKit calls: keys as state, and failures on demand. One instance,
// reset by each test; not for calls from several threads at once.
#pragma once

#include <IOKit/IOKitLib.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace quorvane {

/// The machine that iokit::publishedServices() offers in this test program.
struct ScriptedSMC& machine();

struct ScriptedSMC {
  using Bytes = std::vector<std::uint8_t>;
  using Record = std::array<std::uint8_t, 80>;

  struct Call {
    std::string key;  // the four characters of the key code
    Record request;
    kern_return_t status = KERN_SUCCESS;
    std::size_t replySize = 80;  // the bytes that the reply is said to have
    Record reply{};              // byte 40 is the result

    [[nodiscard]] bool isWrite() const { return request[42] == 6; }
    [[nodiscard]] bool isGood() const { return status == KERN_SUCCESS && reply[40] == 0; }
  };

  /// No keys, no failures; the services of a real machine.
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

  /// Answers a call, which has no effect if its status or its result already is an error.
  void answer(Call& call) {
    const auto key = keys.find(call.key);
    if (key == keys.end()) call.reply[40] = 132;
    if (!call.isGood()) return;
    if (call.isWrite()) std::copy_n(&call.request[48], 32, &key->second[48]);
    call.reply = key->second;
  }

  /// The AppleSMC services, in order; the name of an empty one cannot be read. Only one that is
  /// named like the second can be opened, and answers so.
  std::vector<std::string> serviceNames = {"AppleSMCSensorEndpoint", "AppleSMCKeysEndpoint"};
  kern_return_t openStatus = KERN_SUCCESS;

  /// Gets each call, and answers it or fails it. What it throws passes through the driver, as for a
  /// process that dies.
  std::function<void(Call&)> serve = [](Call& call) { machine().answer(call); };

  /// What a good reply looks like, by key name.
  std::map<std::string, Record> keys;
};

}  // namespace quorvane
