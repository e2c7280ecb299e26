// The guard's end of one connection: what the delegate settles about it on the listener's thread,
// and the thread of its own that admits the peer, serves it until either side is done, and closes
// the socket. The connection ends in silence, whatever the reason; nobody else notices.
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

/// A few companions, one for each logged-in user, with room to spare.
inline constexpr int maxAdmittedConnections = 32;
/// A quarter. Another quarter is root's alone.
inline constexpr int maxAdmittedConnectionsOfOneUser = 8;
/// Peers that have proved nothing yet. Each costs a thread and a gatekeeper.
inline constexpr int maxConnectionsInAdmission = 16;
inline constexpr int maxConnectionsInAdmissionOfOneUser = 4;
/// Requests of one connection that wait for a reply. At this number only pings are read before all
/// are answered.
inline constexpr int maxOutstandingReplies = 64;
/// Within this time a peer must be through admission. Only reading a large executable from a slow
/// disk takes a noticeable part of it.
inline constexpr std::chrono::seconds admissionTimeout{5};

struct ConnectionSettings {
  std::optional<Interface> interface;
  std::shared_ptr<FanControlXPC> object;
  std::optional<std::string> requirement;
  std::chrono::milliseconds timeToAdmit = admissionTimeout;
};

/// What the delegate sees. It collects settings; serving begins once the delegate has accepted.
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

/// Serves the peer behind a socket that has SO_PASSCRED set, on a thread of its own. The connection
/// holds the given place until it is admitted, then one of `admitted`, until its socket has been
/// closed. The socket is taken only if there is a thread: else false.
[[nodiscard]] bool startServing(Descriptor& socket, uid_t user, Place inAdmission,
                                std::shared_ptr<Places> admitted, ConnectionSettings settings);

}  // namespace quorvane::xpc
