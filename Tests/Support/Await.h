// Waits for other threads and processes, with a deadline and a message.
#pragma once

#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>

namespace quorvane::test {

/// Polls until the condition holds. Throws after a minute.
template <class Condition>
void await(const std::string& what, const Condition& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) throw std::runtime_error("no " + what);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

}  // namespace quorvane::test
