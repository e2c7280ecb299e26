#include "Platform/Linux/Channel/Connection.h"

#include <sys/random.h>
#include <sys/socket.h>

#include <array>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <new>
#include <string_view>

#include "Platform/Linux/Channel/Delivery.h"
#include "Platform/Linux/Channel/Gatekeeper.h"
#include "Platform/Linux/Channel/Messages.h"
#include "Platform/Linux/Channel/Peer.h"
#include "Platform/Linux/DetachedThread.h"
#include "Platform/Linux/Socket.h"

namespace quorvane::xpc {
namespace {

/// Returns the sender of a message as the kernel reports it (unix(7), SCM_CREDENTIALS); nothing if
/// the message carries anything else. The credentials come first and fill the control buffer, so
/// the kernel has no room for descriptors: it drops them and sets MSG_CTRUNC.
std::optional<pid_t> soleSender(msghdr& message) {
  const cmsghdr* control = CMSG_FIRSTHDR(&message);
  if ((message.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0 || control == nullptr ||
      control->cmsg_level != SOL_SOCKET || control->cmsg_type != SCM_CREDENTIALS) {
    return std::nullopt;
  }
  ucred credentials{};
  std::memcpy(&credentials, CMSG_DATA(control), sizeof credentials);
  return credentials.pid;
}

/// One connection. It belongs to its thread, which outlives every outstanding reply. Only that
/// thread closes the socket, because closing can block.
class ServedConnection {
 public:
  ServedConnection(uid_t peerUser, Place inAdmission, std::shared_ptr<Places> placesOfAdmitted,
                   ConnectionSettings collected)
      : place(std::move(inAdmission)),
        user(peerUser),
        admitted(std::move(placesOfAdmitted)),
        settings(std::move(collected)) {}

  /// Called before the thread starts, and again if it could not be started.
  void exchangeSocket(Descriptor& other) { std::swap(socket, other); }

  /// The thread's work. Returns when all replies are given.
  void run() {
    try {
      serve();
    } catch (const std::bad_alloc&) {
      // Without memory only this connection is lost; the guard keeps running.
    }
    // Replies can be outstanding for long, but the peer learns of the end immediately.
    cutOff();
    waitForReplies();
  }

  // Callable from any thread.

  /// Never blocks. Cuts the connection off if the message cannot be sent.
  void send(std::string_view message) {
    const bool isSent =
        message.size() <= maxReplySize &&
        ::send(socket.get(), message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0;
    if (!isSent) cutOff();
  }

  void beginReply() {
    const std::lock_guard lock(mutex);
    ++outstandingReplies;
  }

  /// The connection may be gone afterwards.
  void endReply() {
    const std::lock_guard lock(mutex);
    if (--outstandingReplies == 0) changed.notify_one();
  }

 private:
  void serve();
  bool isAdmitted(const Peer& peer);
  bool echoesChallenge(const Peer& peer, Deadline deadline);
  bool moveToAdmitted();
  std::optional<std::string_view> receive(const Peer& peer);

  /// Ends the connection. Of the requests that the peer has queued, only pings are still delivered.
  void cutOff() {
    shutdown(socket.get(), SHUT_RDWR);
    const std::lock_guard lock(mutex);
    isOver = true;
    changed.notify_one();
  }

  /// At the limit of outstanding replies, blocks until all of them are given: waking for each would
  /// cost more than its request. Returns false after cutOff().
  bool waitForTurn() {
    std::unique_lock lock(mutex);
    if (outstandingReplies >= maxOutstandingReplies) {
      changed.wait(lock, [this] { return isOver || outstandingReplies == 0; });
    }
    return !isOver;
  }

  void waitForReplies() {
    std::unique_lock lock(mutex);
    changed.wait(lock, [this] { return outstandingReplies == 0; });
  }

  // In this order: the place is given back only after the socket is closed.
  Place place;
  Descriptor socket;

  const uid_t user;
  const std::shared_ptr<Places> admitted;
  const ConnectionSettings settings;
  std::array<char, maxRequestSize> buffer;  // not zeroed: most of it is never touched

  std::mutex mutex;  // guards the members below
  std::condition_variable changed;
  int outstandingReplies = 0;
  bool isOver = false;
};

/// An outstanding reply of the connection, until its destruction.
class OwedReply final : public ReplySink {
 public:
  explicit OwedReply(ServedConnection& owing) : connection(owing) { connection.beginReply(); }
  ~OwedReply() override { connection.endReply(); }

  void give(std::string_view reply) override { connection.send(reply); }

 private:
  ServedConnection& connection;
};

void ServedConnection::serve() {
  const Peer peer(socket.get());
  if (!isAdmitted(peer)) return;
  for (;;) {
    const auto message = receive(peer);
    std::optional<Request> request = message ? decodeRequest(*message) : std::nullopt;
    if (!request) return;
    // A ping bypasses the service's queue, so the number of requests that wait there is irrelevant.
    if (!std::holds_alternative<PingRequest>(request->operation) && !waitForTurn()) return;
    deliver(std::move(*request), *settings.object, std::make_shared<OwedReply>(*this));
  }
}

/// Checks the delegate's settings first, because that is cheap. The gatekeeper checks the
/// executable that the peer runs. The challenge checks that the peer itself reads and sends.
bool ServedConnection::isAdmitted(const Peer& peer) {
  const Deadline deadline = std::chrono::steady_clock::now() + settings.timeToAdmit;
  return settings.interface && settings.object && settings.requirement &&
         admits(peer, *settings.requirement, deadline) && echoesChallenge(peer, deadline) &&
         moveToAdmitted();
}

/// A signed executable does not prove a signed sender: the messages may have been queued before the
/// executable started, or come from a process that received the socket. Only a process that reads
/// the connection now, and is the peer, can echo the nonce.
bool ServedConnection::echoesChallenge(const Peer& peer, Deadline deadline) {
  Nonce nonce{};
  if (getrandom(nonce.data(), nonce.size(), 0) != static_cast<ssize_t>(nonce.size())) return false;
  send(encodeNonce(MessageKind::challenge, nonce));
  if (!limitBlocking(socket.get(), SO_RCVTIMEO, deadline)) return false;
  const auto response = receive(peer);
  return response && decodeNonce(MessageKind::response, *response) == nonce &&
         limitBlocking(socket.get(), SO_RCVTIMEO, std::nullopt);
}

/// Exchanges the place in admission for one among the admitted. Returns false if there is none.
bool ServedConnection::moveToAdmitted() {
  Place next = admitted->take(user);
  if (!next) return false;
  place = std::move(next);
  return true;
}

/// Returns the peer's next message, valid until the next call; nothing if the connection must end.
std::optional<std::string_view> ServedConnection::receive(const Peer& peer) {
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(ucred))> control{};
  iovec data{buffer.data(), buffer.size()};
  msghdr message{};
  message.msg_iov = &data;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  const ssize_t size =
      untilUninterrupted([&] { return recvmsg(socket.get(), &message, MSG_CMSG_CLOEXEC); });
  const auto sender = size < 0 ? std::nullopt : soleSender(message);
  if (!sender || !peer.hasSent(*sender)) return std::nullopt;
  return std::string_view(buffer.data(), static_cast<std::size_t>(size));
}

void* runConnection(void* argument) {
  const std::unique_ptr<ServedConnection> connection(static_cast<ServedConnection*>(argument));
  connection->run();
  return nullptr;
}

}  // namespace

bool startServing(Descriptor& socket, uid_t user, Place inAdmission,
                  std::shared_ptr<Places> admitted, ConnectionSettings settings) {
  auto connection = std::make_unique<ServedConnection>(user, std::move(inAdmission),
                                                       std::move(admitted), std::move(settings));
  connection->exchangeSocket(socket);
  if (startDetachedThread(runConnection, connection.get()) == 0) {
    // The thread owns it now.
    static_cast<void>(connection.release());
    return true;
  }
  connection->exchangeSocket(socket);
  return false;
}

}  // namespace quorvane::xpc
