// Stands in for the unified log and for sysctl: records what is logged, and answers for "hw.model"
// what a test says. Single-threaded.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace quorvane {

struct FakeSystem {
  /// Each message as "FanHelper: text", behind the word "error" where it is one.
  std::vector<std::string> log;
  /// The bytes of "hw.model", with the NUL that the kernel puts there; nothing where there is no
  /// such value.
  std::optional<std::string> model = std::string("Mac14,2\0", 8);
};

FakeSystem& fakeSystem();

}  // namespace quorvane
