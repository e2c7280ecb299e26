// The guard's end of one connection: the settings from the delegate, collected on the listener's
// thread, and the connection's own thread. That thread admits the peer, serves it until either side
// is done, and closes the socket. A connection ends silently and affects no other one.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "Platform/File.h"
#include "Platform/Linux/Channel/Places.h"
#include "Platform/XPC.h"

namespace quorvane::xpc {

/// One companion for each logged-in user, with room to spare.
inline constexpr int maxAdmittedConnections = 32;
/// A quarter. Another quarter is reserved for root.
inline constexpr int maxAdmittedConnectionsOfOneUser = 8;
/// Peers before admission. Each costs a thread and a gatekeeper.
inline constexpr int maxConnectionsInAdmission = 16;
inline constexpr int maxConnectionsInAdmissionOfOneUser = 4;
/// Requests of one connection that wait for a reply. At this limit the next request that is not a
/// ping, and every message after it, waits until all replies are given.
inline constexpr int maxOutstandingReplies = 64;
/// The time limit of an admission. Only reading a large executable from a slow disk takes a
/// noticeable part of it.
inline constexpr std::chrono::seconds admissionTimeout{5};

struct ConnectionSettings {
  std::optional<Interface> interface;
  std::shared_ptr<FanControlXPC> object;
  std::optional<std::string> requirement;
  std::chrono::milliseconds timeToAdmit = admissionTimeout;
};

/// The delegate's view of a connection. It collects settings, used after the delegate accepts.
class IncomingConnection final : public Connection {
 public:
  void setExportedInterface(Interface interface) override { settings.interface = interface; }
  void setExportedObject(std::shared_ptr<FanControlXPC> object) override {
    settings.object = std::move(object);
  }
  void setCodeSigningRequirement(std::string requirement) override {
    settings.requirement = std::move(requirement);
  }
  void resume() override { resumed = true; }

  ConnectionSettings settings;
  bool resumed = false;
};

/// Serves the socket's peer on a new thread. The connection holds the given place until the peer is
/// admitted, then one of `admitted` until the socket is closed. If no thread can be started,
/// returns false and leaves the socket to the caller. REQUIRES: the socket has SO_PASSCRED set.
[[nodiscard]] bool startServing(Descriptor& socket, uid_t user, Place inAdmission,
                                std::shared_ptr<Places> admitted, ConnectionSettings settings);

}  // namespace quorvane::xpc
