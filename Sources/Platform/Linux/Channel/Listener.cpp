#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <new>
#include <thread>
#include <utility>

#include "Platform/Linux/Channel/Connection.h"
#include "Platform/Linux/Channel/Discard.h"
#include "Platform/Linux/Channel/Peer.h"
#include "Platform/Linux/Channel/Rendezvous.h"
#include "Platform/Linux/DetachedThread.h"
#include "Platform/Linux/ServiceManager.h"
#include "Platform/XPC.h"

namespace quorvane::xpc {
namespace {

/// The pause of the listener's thread if the kernel cannot give it a connection: long enough to
/// spare the processor, short enough for a client that retries.
constexpr std::chrono::seconds exhaustionPause{1};

/// The most descriptors that a connection holds: in admission the socket and the pidfds of peer and
/// gatekeeper, then the first two.
constexpr rlim_t descriptorsInAdmission = 3;
constexpr rlim_t descriptorsAdmitted = 2;
/// Reserved for the restore, its record and the log: twice what they need at a time.
constexpr rlim_t descriptorsReserved = 8;

/// Returns the number of descriptors that peers may take. The kernel assigns the lowest free
/// number, so before any peer comes the listening socket's and the ones below are in use.
rlim_t descriptorsForPeers(int listening) {
  rlimit limit{};
  const rlim_t taken = static_cast<rlim_t>(listening) + 1 + descriptorsReserved;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur < taken) return 0;
  return limit.rlim_cur - taken;
}

/// Makes at most `most` places, limited to half the peers' descriptors; a user's share shrinks too.
std::shared_ptr<Places> makePlaces(int listening, rlim_t descriptorsEach, int most,
                                   int mostOfOneUser) {
  const rlim_t enough = descriptorsForPeers(listening) / 2 / descriptorsEach;
  const int total = static_cast<int>(std::min(enough, static_cast<rlim_t>(most)));
  return std::make_shared<Places>(total, std::max(1, total * mostOfOneUser / most));
}

/// Accepts connections and passes them to the delegate, on the listener's thread.
class Acceptor {
 public:
  Acceptor(Descriptor listeningSocket, std::shared_ptr<ListenerDelegate> listenerDelegate)
      : listening(std::move(listeningSocket)),
        delegate(std::move(listenerDelegate)),
        inAdmission(makePlaces(listening.get(), descriptorsInAdmission, maxConnectionsInAdmission,
                               maxConnectionsInAdmissionOfOneUser)),
        admitted(makePlaces(listening.get(), descriptorsAdmitted, maxAdmittedConnections,
                            maxAdmittedConnectionsOfOneUser)) {}

  /// Throws std::bad_alloc only.
  void acceptNext() {
    // Left over from a call that was short of memory or threads.
    if (incoming && !discard(incoming)) return rest();
    incoming = Descriptor(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (incoming) {
      if (!startServingIncoming() && !discard(incoming)) rest();
    } else if (errno != EINTR && errno != ECONNABORTED) {
      rest();
    }
  }

  static void rest() { std::this_thread::sleep_for(exhaustionPause); }

 private:
  bool startServingIncoming() {
    const auto user = userOfPeer(incoming.get());
    Place place = user ? inAdmission->take(*user) : nullptr;
    if (!place || !delegate) return false;
    IncomingConnection connection;
    return delegate->shouldAcceptNewConnection(connection) && connection.resumed &&
           startServing(incoming, *user, std::move(place), admitted,
                        std::move(connection.settings));
  }

  const Descriptor listening;
  const std::shared_ptr<ListenerDelegate> delegate;
  const std::shared_ptr<Places> inAdmission;
  const std::shared_ptr<Places> admitted;
  /// Closing it on this thread could block: a connection's thread or discard() takes it.
  Descriptor incoming;
};

void* runAcceptor(void* argument) {
  auto& acceptor = *static_cast<Acceptor*>(argument);
  for (;;) {
    try {
      acceptor.acceptNext();
    } catch (const std::bad_alloc&) {
      // Without memory only this client is lost; the guard keeps running.
      Acceptor::rest();
    }
  }
}

}  // namespace

class Listener::Implementation {
 public:
  std::string machServiceName;
  std::shared_ptr<ListenerDelegate> delegate;
};

Listener::Listener(std::string machServiceName)
    : implementation(new Implementation{std::move(machServiceName), nullptr}) {}

Listener::~Listener() = default;

void Listener::setDelegate(std::shared_ptr<ListenerDelegate> delegate) {
  implementation->delegate = std::move(delegate);
}

std::optional<std::string> Listener::resume() {
  Descriptor listening;
  if (auto reason = openRendezvous(implementation->machServiceName, listening)) return reason;
  // If the guard inherited SIGCHLD as ignored, waitid(2) could not return a gatekeeper's verdict.
  signal(SIGCHLD, SIG_DFL);
  auto acceptor = std::make_unique<Acceptor>(std::move(listening), implementation->delegate);
  if (const int error = startDetachedThread(runAcceptor, acceptor.get()); error != 0) {
    return std::string("cannot start the listener's thread: ") + std::strerror(error);
  }
  // It serves until the process ends and is never freed: its thread still runs during exit().
  static_cast<void>(acceptor.release());
  notifyServiceManager("READY=1");
  return std::nullopt;
}

}  // namespace quorvane::xpc
