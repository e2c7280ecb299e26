// Turns a decoded request into a call of the exported object, and the object's reply into bytes. It
// has no socket and no thread; it runs on the calling thread.
#pragma once

#include <memory>
#include <string_view>

#include "Platform/Linux/Channel/Messages.h"

namespace quorvane::xpc {

/// Takes the reply to one request. It is destroyed with the last copy of the reply function that
/// the exported object has received.
class ReplySink {
 public:
  ReplySink() = default;
  virtual ~ReplySink() = default;
  ReplySink(const ReplySink&) = delete;
  ReplySink& operator=(const ReplySink&) = delete;
  /// Takes the encoded reply, once, on the thread on which the exported object replies.
  virtual void give(std::string_view reply) = 0;
};

/// Calls the operation that the request names.
void deliver(Request request, FanControlXPC& object, std::shared_ptr<ReplySink> sink);

}  // namespace quorvane::xpc
