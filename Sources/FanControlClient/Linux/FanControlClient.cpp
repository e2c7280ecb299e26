#include "FanControlClient/FanControlClient.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <utility>

#include "Platform/File.h"
#include "Platform/Linux/Channel/Messages.h"
#include "Platform/Linux/Channel/Rendezvous.h"
#include "Platform/Linux/Socket.h"

namespace quorvane {

class FanControlClient::Implementation {
 public:
  bool connect() {
    const Deadline deadline = nextDeadline();
    // Only a reply shows that the helper has admitted this client.
    return reach(deadline) && answerChallenge(deadline) &&
           exchange<std::string>(xpc::PingRequest(), deadline).has_value();
  }

  template <class Reply>
  std::optional<Reply> call(const xpc::Operation& operation) {
    return exchange<Reply>(operation, nextDeadline());
  }

  std::string error;

 private:
  static constexpr char closed[] = "the helper closed the connection";

  /// Names the command that finds the reason, because the helper gives none.
  static std::string refusal() {
    std::error_code error;
    const auto executable = std::filesystem::read_symlink("/proc/self/exe", error);
    return "the helper refused this client; to see why: quorvane-codesign verify --team " +
           std::string(FanControlConstants::teamID) + " " + executable.native();
  }

  static Deadline nextDeadline() { return std::chrono::steady_clock::now() + replyTimeout; }

  /// Closes the connection and returns false. Every failure ends it: a late reply must not be taken
  /// for the reply to a later call.
  bool fail(std::string reason) {
    connection = Descriptor();
    error = std::move(reason);
    return false;
  }

  bool failWithError(std::string reason, int number) {
    return fail(std::move(reason).append(": ").append(std::strerror(number)));
  }

  bool reach(Deadline deadline) {
    const std::string path = xpc::machServiceSocketPath(FanControlConstants::helperMachService);
    const auto address = socketAddress(path);
    if (!address) return fail("the path is too long for a socket: " + path);
    connection = Descriptor(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!connection) return failWithError("cannot make a socket", errno);
    const ssize_t result = untilDone(SO_SNDTIMEO, deadline, [&] {
      return ::connect(connection.get(), address->get(), address->size);
    });
    const int number = errno;
    if (result == 0) return true;
    if (number == EAGAIN) return failLate();
    if (number == ENOENT || number == ENOTDIR || number == ECONNREFUSED) {
      return fail("the helper is not running (" + path + ": " + std::strerror(number) + ")");
    }
    return failWithError("cannot reach the helper at " + path, number);
  }

  bool answerChallenge(Deadline deadline) {
    std::string challenge;
    if (!receive(challenge, deadline, refusal())) return false;
    const auto nonce = decodeNonce(xpc::MessageKind::challenge, challenge);
    if (!nonce) return fail("the helper's challenge is malformed");
    return send(encodeNonce(xpc::MessageKind::response, *nonce), deadline);
  }

  template <class Reply>
  std::optional<Reply> exchange(const xpc::Operation& operation, Deadline deadline) {
    if (!connection) return failed("not connected to the helper");
    const std::string request = xpc::encodeRequest(++lastCall, operation);
    if (request.size() > xpc::maxRequestSize) return failed("the request is too long");
    std::string message;
    if (!send(request, deadline) || !receive(message, deadline, closed)) return std::nullopt;
    auto reply = xpc::decodeReply<Reply>(message, lastCall);
    if (!reply) return failed("the helper's answer is malformed");
    return reply;
  }

  std::nullopt_t failed(std::string reason) {
    fail(std::move(reason));
    return std::nullopt;
  }

  bool send(std::string_view message, Deadline deadline) {
    const ssize_t sent = untilDone(SO_SNDTIMEO, deadline, [&] {
      return ::send(connection.get(), message.data(), message.size(), MSG_NOSIGNAL);
    });
    if (sent >= 0) return true;
    return errno == EAGAIN ? failLate() : fail(closed);
  }

  bool receive(std::string& message, Deadline deadline, const std::string& whenClosed) {
    message.resize(xpc::maxReplySize);
    // With MSG_TRUNC recv() returns the message's full size, even if it did not fit.
    const ssize_t size = untilDone(SO_RCVTIMEO, deadline, [&] {
      return recv(connection.get(), message.data(), message.size(), MSG_TRUNC);
    });
    if (size < 0 && errno == EAGAIN) return failLate();
    if (size <= 0) return fail(whenClosed);
    if (static_cast<std::size_t>(size) > message.size()) {
      return fail("the helper's answer is too long");
    }
    message.resize(static_cast<std::size_t>(size));
    return true;
  }

  /// Repeats a blocking call that a signal interrupts. EAGAIN means that the deadline has passed.
  template <class Call>
  ssize_t untilDone(int direction, Deadline deadline, const Call& blockingCall) const {
    for (;;) {
      if (!limitBlocking(connection.get(), direction, deadline)) {
        errno = EAGAIN;
        return -1;
      }
      const ssize_t result = blockingCall();
      if (result >= 0 || errno != EINTR) return result;
    }
  }

  bool failLate() {
    return fail("the helper did not answer within " + std::to_string(replyTimeout.count()) +
                " seconds");
  }

  Descriptor connection;
  std::uint32_t lastCall = 0;
};

FanControlClient::FanControlClient() : implementation(std::make_unique<Implementation>()) {}

FanControlClient::~FanControlClient() = default;

bool FanControlClient::connect() {
  return implementation->connect();
}

const std::string& FanControlClient::error() const {
  return implementation->error;
}

std::optional<Outcome> FanControlClient::writeFanKey(const std::string& key, std::int64_t value,
                                                     bool isFloat) {
  return implementation->call<Outcome>(xpc::WriteFanKeyRequest{key, value, isFloat});
}

std::optional<Outcome> FanControlClient::restoreAuto() {
  return implementation->call<Outcome>(xpc::RestoreAutoRequest());
}

std::optional<StatusReport> FanControlClient::status() {
  return implementation->call<StatusReport>(xpc::StatusRequest());
}

std::optional<std::string> FanControlClient::ping() {
  return implementation->call<std::string>(xpc::PingRequest());
}

}  // namespace quorvane
