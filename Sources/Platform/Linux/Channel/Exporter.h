// The server's half of a call: a request as bytes in, a call of the exported object, its reply as
// bytes out. No socket and no thread of its own; runs on the thread that calls it.
#pragma once

#include <memory>
#include <string_view>

#include "Platform/XPC.h"

namespace quorvane::xpc {

/// Where the reply to a request goes; it goes itself with the last copy of the reply function that
/// the exported object was given.
class Answer {
 public:
  Answer() = default;
  virtual ~Answer() = default;
  Answer(const Answer&) = delete;
  Answer& operator=(const Answer&) = delete;
  /// Takes the encoded reply, once, on the thread on which the exported object calls its function.
  virtual void give(std::string_view reply) = 0;
};

/// Calls the operation that the request names. False when the bytes are no request of the
/// interface: nothing was called, and the connection they came from must end.
[[nodiscard]] bool deliver(std::string_view request, const Interface& interface,
                           FanControlXPC& object, std::shared_ptr<Answer> answer);

}  // namespace quorvane::xpc
