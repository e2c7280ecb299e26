#include "QuorvaneFanHelper/ListenerDelegate.h"

#include <utility>

namespace quorvane {

ListenerDelegate::ListenerDelegate(std::shared_ptr<FanControlXPC> exported)
    : service(std::move(exported)) {}

bool ListenerDelegate::shouldAcceptNewConnection(xpc::Connection& newConnection) {
  newConnection.setExportedInterface(xpc::Interface::fanControl);
  newConnection.setExportedObject(service);
  newConnection.setCodeSigningRequirement(FanControlConstants::appCodeRequirement());
  newConnection.resume();
  return true;
}

}  // namespace quorvane
