// XPC as far as the helper uses it: a listener on a Mach service name and the connections it hands
// to its delegate. On macOS a facade over NSXPCListener and NSXPCConnection; on Linux a Unix socket
// with an admission of its own. No platform type appears here.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "QRVFanShared/FanControlXPC.h"

namespace quorvane::xpc {

/// What a connection may be asked. There is one interface.
enum class Interface : std::uint8_t { fanControl };

/// An incoming connection. Configured by the delegate on the listener's thread before resume();
/// afterwards no longer touched by the helper. A connection that was given no requirement, or one
/// whose text cannot be parsed, admits nobody.
class Connection {
 public:
  virtual ~Connection() = default;
  virtual void setExportedInterface(Interface interface) = 0;
  /// Calls arrive on a thread of the connection, several connections in parallel.
  virtual void setExportedObject(std::shared_ptr<FanControlXPC> object) = 0;
  /// The peer must satisfy this requirement before anything is delivered to the exported object.
  virtual void setCodeSigningRequirement(std::string requirement) = 0;
  virtual void resume() = 0;
};

class ListenerDelegate {
 public:
  virtual ~ListenerDelegate() = default;
  /// Called on the listener's own thread, one connection at a time. False refuses the connection.
  virtual bool shouldAcceptNewConnection(Connection& newConnection) = 0;
};

/// Makes this process the only one to serve the name: launchd's promise on macOS, where this does
/// nothing; a kernel-held lock on Linux, kept until the process ends. Yields why this process must
/// not start, which is only ever that another one serves; a lock that cannot be taken for any other
/// reason is left to Listener::resume().
[[nodiscard]] std::optional<std::string> claimMachService(const std::string& name);

/// Listens on a Mach service name from resume() until the process ends. Used from the main thread.
class Listener {
 public:
  explicit Listener(std::string machServiceName);
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  void setDelegate(std::shared_ptr<ListenerDelegate> delegate);
  /// Yields why nobody can connect, or nothing once connections are accepted.
  [[nodiscard]] std::optional<std::string> resume();

 private:
  class Implementation;
  std::unique_ptr<Implementation> implementation;
};

}  // namespace quorvane::xpc
