// The part of XPC that the helper uses: a listener on a Mach service name, and the connections that
// it passes to its delegate. On macOS a facade over NSXPCListener and NSXPCConnection; on Linux a
// Unix socket with our own admission. No platform type appears here.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "QRVFanShared/FanControlXPC.h"

namespace quorvane::xpc {

/// The operations that a connection offers. There is one interface.
enum class Interface : std::uint8_t { fanControl };

/// An incoming connection. The delegate configures it on the listener's thread before resume(); the
/// helper does not use it afterwards. A connection without a requirement, or with one that cannot
/// be parsed, admits nobody.
class Connection {
 public:
  virtual ~Connection() = default;
  virtual void setExportedInterface(Interface interface) = 0;
  /// Calls arrive on the connection's thread. Several connections run in parallel.
  virtual void setExportedObject(std::shared_ptr<FanControlXPC> object) = 0;
  /// The peer must satisfy this requirement before a call reaches the exported object.
  virtual void setCodeSigningRequirement(std::string requirement) = 0;
  virtual void resume() = 0;
};

class ListenerDelegate {
 public:
  virtual ~ListenerDelegate() = default;
  /// Called on the listener's thread, one connection at a time. Returns false to refuse it.
  virtual bool shouldAcceptNewConnection(Connection& newConnection) = 0;
};

/// Makes this process the only one that serves the name. On macOS this is a no-op, because launchd
/// guarantees it. On Linux it takes a lock of the kernel, held until the process ends. Returns the
/// reason why this process must not start, if another one serves the name. It ignores any other
/// failure to take the lock, which Listener::resume() reports.
[[nodiscard]] std::optional<std::string> claimMachService(const std::string& name);

/// Listens on a Mach service name from resume() until the process ends. Used from the main thread.
class Listener {
 public:
  explicit Listener(std::string machServiceName);
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  void setDelegate(std::shared_ptr<ListenerDelegate> delegate);
  /// Accepts connections. Returns nothing on success, else the reason.
  [[nodiscard]] std::optional<std::string> resume();

 private:
  class Implementation;
  std::unique_ptr<Implementation> implementation;
};

}  // namespace quorvane::xpc
