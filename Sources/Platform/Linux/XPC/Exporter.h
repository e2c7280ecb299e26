// The server's half of a call: a request as bytes in, a call of the exported object, its reply as
// bytes out. No socket and no thread of its own; runs on the thread that calls it.
#pragma once

#include <functional>
#include <string_view>

#include "Platform/XPC.h"

namespace quorvane::xpc {

/// Takes an encoded reply, once, on the thread on which the exported object calls the reply that it
/// was given.
using Answer = std::function<void(std::string_view reply)>;

/// Calls the operation that the request names. False when the bytes are no request of the
/// interface: nothing was called, and the connection they came from must end.
[[nodiscard]] bool deliver(std::string_view request, const Interface& interface,
                           FanControlXPC& object, Answer answer);

}  // namespace quorvane::xpc
