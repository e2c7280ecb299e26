// A decoded request becomes a call of the exported object, and the object's answer a reply in
// bytes. No socket and no thread of its own; runs on the thread that calls it.
#pragma once

#include <memory>
#include <string_view>

#include "Platform/Linux/Channel/Messages.h"

namespace quorvane::xpc {

/// Where the reply to one request goes. It is destroyed with the last copy of the reply function
/// that the exported object was given.
class ReplySink {
 public:
  ReplySink() = default;
  virtual ~ReplySink() = default;
  ReplySink(const ReplySink&) = delete;
  ReplySink& operator=(const ReplySink&) = delete;
  /// Takes the encoded reply, once, on the thread on which the exported object calls its function.
  virtual void give(std::string_view reply) = 0;
};

/// Calls the operation that the request names.
void deliver(Request request, FanControlXPC& object, std::shared_ptr<ReplySink> sink);

}  // namespace quorvane::xpc
