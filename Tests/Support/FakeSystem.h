// Stands in for the unified log and for sysctl: records what is logged, and answers for "hw.model"
// what a test says. Single-threaded.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace quorvane {

struct FakeSystem {
  struct Message {
    bool isError;
    std::string category;
    std::string text;
    bool operator==(const Message&) const = default;
  };

  std::vector<Message> log;
  /// The bytes of "hw.model", with the NUL that the kernel puts there; nothing where there is no
  /// such value.
  std::optional<std::string> model = std::string("Mac14,2\0", 8);
  int modelReads = 0;
};

FakeSystem& fakeSystem();

}  // namespace quorvane
