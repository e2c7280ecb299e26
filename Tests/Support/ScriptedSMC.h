// A machine for tests, behind the IOKit calls: keys as state, failures on demand, and a record of
// what was asked. One instance, reset by each test; not for calls from several threads at once.
#pragma once

#include <IOKit/IOKitLib.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quorvane {

class ScriptedSMC {
 public:
  using Bytes = std::vector<std::uint8_t>;
  using Record = std::array<std::uint8_t, 80>;
  /// The command byte of a struct call.
  enum class Operation : std::uint8_t { read = 5, write = 6, info = 9 };

  struct Call {
    Operation operation;
    std::string key;  // the four characters of the key code
    Record request;
  };

  /// Which calls a failure is for: those of one key, or of every one; one operation, or every one.
  struct Which {
    std::optional<std::string> key;
    std::optional<Operation> operation;
  };

  /// No keys, no failures, no calls; the services of a real machine.
  void reset() { *this = {}; }

  /// `bytes` are the start of a read's data area, zeros behind them; neither they nor the size need
  /// be plausible. Takes the place of a key of that name. Of a longer name the last four
  /// characters count, here and wherever a key is named.
  void addKey(const std::string& name, std::string_view type, std::uint32_t size,
              std::uint8_t attributes, Bytes bytes);
  void removeKey(const std::string& name);
  /// The five keys of a fan at rest: Ac, Tg, Mn, Mx and Md. `speedType` is "flt " or "fpe2".
  void addFan(int index, std::string_view speedType);
  void setFanCount(std::uint8_t count) { addKey("FNum", "ui8 ", 1, 0x80, {count}); }
  /// What the key holds: as added, or the quoted size of the last write (at most 32 bytes). Empty
  /// when it is not there.
  Bytes value(const std::string& name) const;

  /// The call itself fails with a kernel return code.
  void failCalls(const Which& which, kern_return_t status) { fail({which, status, 0, 80}); }
  /// The SMC answers with a result byte, all else in the reply being as usual. Nothing is written.
  void failResults(const Which& which, std::uint8_t result) { fail({which, 0, result, 80}); }
  /// All is done, and the reply is said to be that many bytes.
  void setReplySize(const Which& which, std::size_t size) { fail({which, 0, 0, size}); }
  /// Of several failures for a call the latest counts, until this ends them all.
  void heal() { failures.clear(); }

  /// Struct calls since they were last taken, failed ones included.
  std::vector<Call> takeCalls();

  /// The AppleSMC services, in order; nothing for one whose name cannot be read.
  std::vector<std::optional<std::string>> serviceNames = {"AppleSMCSensorEndpoint",
                                                          "AppleSMCKeysEndpoint"};
  /// What IOServiceOpen answers.
  kern_return_t openStatus = KERN_SUCCESS;
  /// The names of the services that were opened, and how many of their connections are open.
  std::vector<std::string> openedServices;
  int openConnections = 0;

  kern_return_t structMethod(const Record& request, Record& reply, std::size_t& replySize);

 private:
  struct Key {
    std::uint32_t size;
    std::uint32_t type;
    std::uint8_t attributes;
    Bytes bytes;
  };
  struct Failure {
    Which which;
    kern_return_t status;
    std::uint8_t result;
    std::size_t replySize;
  };

  void fail(Failure failure) { failures.insert(failures.begin(), std::move(failure)); }
  Failure failureFor(const Call& call) const;

  std::map<std::uint32_t, Key> keys;  // by key code
  std::vector<Failure> failures;
  std::vector<Call> calls;
};

/// The machine that iokit::publishedServices() offers in this test program.
ScriptedSMC& machine();

}  // namespace quorvane
