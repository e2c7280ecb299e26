// Exports the one service on every connection, and sets the companion's signature as the
// connection's requirement. Keeps no state of connections. Called on the listener's thread.
#pragma once

#include <memory>

#include "Platform/XPC.h"

namespace quorvane {

class ListenerDelegate final : public xpc::ListenerDelegate {
 public:
  explicit ListenerDelegate(std::shared_ptr<FanControlXPC> exported);

  /// Returns true: the requirement alone decides who may call the helper.
  bool shouldAcceptNewConnection(xpc::Connection& newConnection) override;

 private:
  const std::shared_ptr<FanControlXPC> service;
};

}  // namespace quorvane
