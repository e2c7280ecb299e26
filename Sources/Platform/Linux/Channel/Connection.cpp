#include "Platform/Linux/Channel/Connection.h"

#include <sys/random.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <new>
#include <span>
#include <string_view>

#include "Platform/Linux/Channel/Exporter.h"
#include "Platform/Linux/Channel/Peer.h"
#include "Platform/Linux/Channel/Wire.h"
#include "Platform/Linux/CodeSigning/PeerIdentity.h"
#include "Platform/Linux/DetachedThread.h"

namespace quorvane::xpc {
namespace {

/// Who sent a message, in the kernel's words (unix(7), SCM_CREDENTIALS); nothing when anything else
/// came with it. The credentials come first and fill the control buffer, so the kernel has no room
/// to hand over descriptors: it drops them and says so by MSG_CTRUNC.
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

/// The socket of one connection and the account of its replies. Owned jointly by the connection's
/// thread and the replies still to come, so that a late reply never goes to another client on a
/// reused descriptor. Callable from any thread, but for what only the connection's thread does.
class Link {
 public:
  Link(Descriptor connected, Place inAdmission)
      : place(std::move(inAdmission)), socket(std::move(connected)) {}

  /// Never blocks. A peer that does not take what it is sent is cut off.
  void send(std::string_view message) {
    const bool isSent =
        message.size() <= maxReplySize &&
        ::send(socket.get(), message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0;
    if (!isSent) cutOff();
  }

  /// What the peer queued before this is not read any more.
  void cutOff() {
    shutdown(socket.get(), SHUT_RDWR);
    const std::lock_guard lock(mutex);
    isOver = true;
    changed.notify_one();
  }

  void beginReply() {
    const std::lock_guard lock(mutex);
    ++outstandingReplies;
  }

  void endReply() {
    const std::lock_guard lock(mutex);
    if (--outstandingReplies == 0) changed.notify_one();
  }

  /// Connection's thread only. Where no more replies may be owed, waits until all of them are
  /// given: to wake for each would cost more than its request. False once cut off.
  [[nodiscard]] bool waitForRoom() {
    std::unique_lock lock(mutex);
    if (outstandingReplies == maxOutstandingReplies) {
      changed.wait(lock, [this] { return isOver || outstandingReplies == 0; });
    }
    return !isOver;
  }

  /// Connection's thread only. The next message, when it is one from this process; nothing when the
  /// connection must end.
  [[nodiscard]] std::optional<std::string_view> receive(const Peer& peer, std::span<char> buffer) {
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(ucred))> control{};
    iovec data{buffer.data(), buffer.size()};
    msghdr message{};
    ssize_t size = -1;
    do {
      message.msg_iov = &data;
      message.msg_iovlen = 1;
      message.msg_control = control.data();
      message.msg_controllen = control.size();
      size = recvmsg(socket.get(), &message, MSG_CMSG_CLOEXEC);
    } while (size < 0 && errno == EINTR);
    const auto sender = size < 0 ? std::nullopt : soleSender(message);
    if (!sender || !peer.isSender(*sender)) return std::nullopt;
    return std::string_view(buffer.data(), static_cast<std::size_t>(size));
  }

  /// Connection's thread only. Exchanges the place in admission for one among the admitted.
  [[nodiscard]] bool moveTo(Places& admitted) {
    Place next = admitted.take();
    if (!next) return false;
    place = std::move(next);
    return true;
  }

  [[nodiscard]] int descriptor() const { return socket.get(); }

 private:
  // In this order: the place is free again only when the descriptor is closed.
  Place place;
  Descriptor socket;
  std::mutex mutex;
  std::condition_variable changed;
  int outstandingReplies = 0;
  bool isOver = false;
};

/// One more reply of the link, owed until this goes.
class OwedReply final : public Answer {
 public:
  explicit OwedReply(std::shared_ptr<Link> owing) : link(std::move(owing)) { link->beginReply(); }
  ~OwedReply() override { link->endReply(); }

  void give(std::string_view reply) override { link->send(reply); }

 private:
  const std::shared_ptr<Link> link;
};

bool isRequirementMet(const Peer& peer, const std::optional<std::string>& requirement) {
  if (!requirement) return false;
  const Descriptor executable = peer.openExecutable();
  return executable && satisfiesRequirement(executable.get(), *requirement);
}

/// A signed executable is not yet a signed sender: its messages may have been queued before it was
/// executed, or come from somebody who was handed its socket. Only who reads the connection now,
/// and is this process, can echo the nonce.
bool echoesChallenge(Link& link, const Peer& peer, std::span<char> buffer, Deadline deadline) {
  Nonce nonce{};
  if (getrandom(nonce.data(), nonce.size(), 0) != static_cast<ssize_t>(nonce.size())) return false;
  link.send(encodeNonce(MessageKind::challenge, nonce));
  if (!limitBlocking(link.descriptor(), SO_RCVTIMEO, deadline)) return false;
  const auto response = link.receive(peer, buffer);
  return response && decodeNonce(MessageKind::challengeResponse, *response) == nonce &&
         limitBlocking(link.descriptor(), SO_RCVTIMEO, std::nullopt);
}

struct Service {
  std::shared_ptr<Link> link;
  std::shared_ptr<Places> admitted;
  ConnectionSettings settings;
};

void serve(const Service& service) {
  const ConnectionSettings& settings = service.settings;
  const Deadline deadline = std::chrono::steady_clock::now() + settings.timeToAdmit;
  Link& link = *service.link;
  // Not set to zero: of its pages, only those that requests reach are ever taken.
  const auto memory = std::make_unique_for_overwrite<char[]>(maxRequestSize);
  const std::span<char> buffer(memory.get(), maxRequestSize);
  const Peer peer(link.descriptor());
  const bool isAdmitted = settings.object && isRequirementMet(peer, settings.requirement) &&
                          echoesChallenge(link, peer, buffer, deadline) &&
                          link.moveTo(*service.admitted);
  if (!isAdmitted) return;

  while (link.waitForRoom()) {
    const auto request = link.receive(peer, buffer);
    if (!request) return;
    const bool isDelivered = deliver(*request, settings.interface, *settings.object,
                                     std::make_shared<OwedReply>(service.link));
    if (!isDelivered) return;
  }
}

void* runService(void* argument) {
  const std::unique_ptr<const Service> service(static_cast<const Service*>(argument));
  try {
    serve(*service);
  } catch (const std::bad_alloc&) {
    // Short of memory this connection is lost, but not the daemon that guards the fans.
  }
  // Replies that are still owed keep the descriptor open; the peer learns of the end at once.
  service->link->cutOff();
  return nullptr;
}

}  // namespace

void startServing(Descriptor socket, Place inAdmission, std::shared_ptr<Places> admitted,
                  ConnectionSettings settings) {
  auto service = std::make_unique<Service>(
      Service{std::make_shared<Link>(std::move(socket), std::move(inAdmission)),
              std::move(admitted), std::move(settings)});
  if (startDetachedThread(runService, service.get()) == 0) {
    // The thread owns it now.
    static_cast<void>(service.release());
  }
}

}  // namespace quorvane::xpc
