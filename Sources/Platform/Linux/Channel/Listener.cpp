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
#include "Platform/Linux/Channel/Rendezvous.h"
#include "Platform/Linux/DetachedThread.h"
#include "Platform/Linux/ServiceManager.h"
#include "Platform/XPC.h"

namespace quorvane::xpc {
namespace {

/// How long the listener's thread rests when the kernel cannot give it a connection: long enough
/// not to burn a processor, short enough for a client that tries again.
constexpr std::chrono::seconds exhaustionPause{1};

/// What a connection holds at most: while its peer is looked at, and from then on.
constexpr rlim_t descriptorsInAdmission = 6;
constexpr rlim_t descriptorsAdmitted = 2;
/// Kept from the peers, for the restore, its record and the log: twice of what they need at once.
constexpr rlim_t descriptorsReserved = 8;

/// How many descriptors peers may take. The kernel gives the lowest number that is free, so those
/// in use before any peer comes are the listening socket's and the ones below.
rlim_t descriptorsForPeers(int listening) {
  rlimit limit{};
  const rlim_t taken = static_cast<rlim_t>(listening) + 1 + descriptorsReserved;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur < taken) return 0;
  return limit.rlim_cur - taken;
}

/// As many places as half of the descriptors for peers suffice for, and no more than `most`.
std::shared_ptr<Places> makePlaces(int listening, rlim_t descriptorsEach, int most) {
  const rlim_t enough = descriptorsForPeers(listening) / 2 / descriptorsEach;
  return std::make_shared<Places>(static_cast<int>(std::min(enough, static_cast<rlim_t>(most))));
}

/// Takes what connects and hands it to the delegate, on the listener's thread.
class Acceptor {
 public:
  Acceptor(Descriptor listeningSocket, std::shared_ptr<ListenerDelegate> listenerDelegate)
      : listening(std::move(listeningSocket)),
        delegate(std::move(listenerDelegate)),
        inAdmission(makePlaces(listening.get(), descriptorsInAdmission, maxConnectionsInAdmission)),
        admitted(makePlaces(listening.get(), descriptorsAdmitted, maxAdmittedConnections)) {}

  void acceptNext() {
    Descriptor socket(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (socket) {
      receive(std::move(socket));
    } else if (errno != EINTR && errno != ECONNABORTED) {
      std::this_thread::sleep_for(exhaustionPause);
    }
  }

 private:
  void receive(Descriptor socket) {
    Place place = inAdmission->take();
    if (!place || !delegate) return;
    IncomingConnection connection;
    if (!delegate->shouldAcceptNewConnection(connection) || !connection.resumed) return;
    startServing(std::move(socket), std::move(place), admitted, std::move(connection.settings));
  }

  Descriptor listening;
  std::shared_ptr<ListenerDelegate> delegate;
  std::shared_ptr<Places> inAdmission;
  std::shared_ptr<Places> admitted;
};

void* runAcceptor(void* argument) {
  auto& acceptor = *static_cast<Acceptor*>(argument);
  for (;;) {
    try {
      acceptor.acceptNext();
    } catch (const std::bad_alloc&) {
      // Short of memory this client is lost, but not the daemon that guards the fans.
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
  auto acceptor = std::make_unique<Acceptor>(std::move(listening), implementation->delegate);
  if (const int error = startDetachedThread(runAcceptor, acceptor.get()); error != 0) {
    return std::string("cannot start the listener's thread: ") + std::strerror(error);
  }
  // It serves until the process ends, and is not freed then: its thread runs on through exit().
  static_cast<void>(acceptor.release());
  notifyServiceManager("READY=1");
  return std::nullopt;
}

}  // namespace quorvane::xpc
