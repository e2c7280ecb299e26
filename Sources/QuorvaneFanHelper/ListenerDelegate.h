// Exports the one service on every connection and binds the connection to the companion's
// signature. Keeps no state of connections. Called on the listener's thread.
#pragma once

#include <memory>

#include "Platform/XPC.h"

namespace quorvane {

class ListenerDelegate final : public xpc::ListenerDelegate {
 public:
  explicit ListenerDelegate(std::shared_ptr<FanControlXPC> exported);

  /// Always true: who may talk to the helper is decided by the requirement alone.
  bool shouldAcceptNewConnection(xpc::Connection& newConnection) override;

 private:
  const std::shared_ptr<FanControlXPC> service;
};

}  // namespace quorvane
