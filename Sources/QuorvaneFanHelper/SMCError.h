// Why the SMC was not opened or a key not written. A value. HelperSMC throws it and nothing else.
#pragma once

#include <cstdint>
#include <string>

namespace quorvane {

class SMCError {
 public:
  /// The driver call returned something other than KERN_SUCCESS.
  static SMCError callFailed(std::int32_t kernReturn) { return {Case::callFailed, kernReturn}; }
  /// The SMC's result byte is not 0.
  static SMCError resultError(std::uint8_t result) { return {Case::resultError, result}; }
  /// There is no connection to the driver.
  static SMCError notOpen() { return {Case::notOpen, 0}; }
  /// The SMC does not know the key, or the key's format cannot hold the value.
  static SMCError keyMissing() { return {Case::keyMissing, 0}; }

  /// Returns the case's name, with its payload in decimal if it has one: "resultError(132)".
  /// Replies, the log and probe output contain this text.
  [[nodiscard]] std::string text() const {
    switch (kind) {
      case Case::callFailed:
        return "callFailed(" + std::to_string(payload) + ")";
      case Case::resultError:
        return "resultError(" + std::to_string(payload) + ")";
      case Case::notOpen:
        return "notOpen";
      case Case::keyMissing:
        return "keyMissing";
    }
    return {};
  }

 private:
  enum class Case : std::uint8_t { callFailed, resultError, notOpen, keyMissing };

  SMCError(Case which, std::int32_t detail) : kind(which), payload(detail) {}

  Case kind;
  std::int32_t payload;
};

}  // namespace quorvane
