// A fake SMC behind the IOKit calls: a table of keys, and failures on demand. The tests reset the
// only instance. Not thread-safe.
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
    std::size_t replySize = 80;  // as reported to the caller
    Record reply{};              // byte 40 is the result

    [[nodiscard]] bool isWrite() const { return request[42] == 6; }
    [[nodiscard]] bool isGood() const { return status == KERN_SUCCESS && reply[40] == 0; }
  };

  /// Removes all keys and failures, and publishes the services of a real machine.
  void reset() { *this = {}; }

  /// Adds or replaces a key. `name` and `type` have four characters. A read returns `bytes`, at
  /// most 32, padded with zeros. `size`, at most 255, need not match them.
  void addKey(const std::string& name, const std::string& type, std::uint32_t size,
              std::uint8_t attributes, const Bytes& bytes = {}) {
    Record& key = keys[name] = {};
    key[28] = static_cast<std::uint8_t>(size);
    std::copy(type.rbegin(), type.rend(), &key[32]);
    key[36] = attributes;
    std::copy(bytes.begin(), bytes.end(), &key[48]);
  }
  void setFanCount(std::uint8_t count) { addKey("FNum", "ui8 ", 1, 0x80, {count}); }

  /// Answers a call. Has no effect on the keys if the call's status or result is an error.
  void answer(Call& call) {
    const auto key = keys.find(call.key);
    if (key == keys.end()) call.reply[40] = 132;
    if (!call.isGood()) return;
    if (call.isWrite()) std::copy_n(&call.request[48], 32, &key->second[48]);
    call.reply = key->second;
  }

  /// The names of the AppleSMC services, in order. An empty string means that the name cannot be
  /// read. Opening an AppleSMCKeysEndpoint returns openStatus; all others are not privileged.
  std::vector<std::string> serviceNames = {"AppleSMCSensorEndpoint", "AppleSMCKeysEndpoint"};
  kern_return_t openStatus = KERN_SUCCESS;

  /// Answers or fails each call. Its exceptions pass through the driver, to simulate the death of
  /// the process.
  std::function<void(Call&)> serve = [](Call& call) { machine().answer(call); };

  /// The successful replies, by key name.
  std::map<std::string, Record> keys;
};

}  // namespace quorvane
