// Waiting for what other threads and processes do.
#pragma once

#include <chrono>
#include <thread>

namespace quorvane::test {

/// Asks again and again until it holds; false when it still does not after a minute.
template <class Condition>
[[nodiscard]] bool eventually(const Condition& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace quorvane::test
