#include "FanControlClient/FanControlClient.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "Platform/Linux/Channel/Socket.h"
#include "Platform/Linux/Channel/Wire.h"

namespace quorvane {

using xpc::Deadline;
using xpc::Value;

namespace {

const auto& [writeOperation, restoreOperation, statusOperation, pingOperation] =
    fanControlOperations;

}  // namespace

class FanControlClient::Implementation {
 public:
  bool connect() {
    const Deadline deadline = nextDeadline();
    std::vector<Value> answer;
    return reach(deadline) && answerChallenge(deadline) &&
           // Only an answered call shows that the helper has admitted us.
           exchange(pingOperation, {}, deadline, answer);
  }

  std::optional<std::vector<Value>> call(const XPCOperation& operation,
                                         const std::vector<Value>& arguments = {}) {
    std::vector<Value> values;
    if (!exchange(operation, arguments, nextDeadline(), values)) return std::nullopt;
    return values;
  }

  std::string error;

 private:
  static constexpr char closed[] = "the helper closed the connection";

  static Deadline nextDeadline() { return std::chrono::steady_clock::now() + replyTimeout; }

  /// Every failure is the end of the connection: an answer that comes too late must not be taken
  /// for that of a later call. Always false.
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
    const auto address = xpc::socketAddress(path);
    if (!address) return fail("the path is too long for a socket: " + path);
    connection = Descriptor(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!connection) return failWithError("cannot make a socket", errno);
    const ssize_t result = untilDone(SO_SNDTIMEO, deadline, [&] {
      return ::connect(connection.get(), reinterpret_cast<const sockaddr*>(&*address),
                       sizeof *address);
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
    if (!receive(challenge, deadline, "the helper refused this client (is it signed?)")) {
      return false;
    }
    const auto nonce = decodeNonce(xpc::MessageKind::challenge, challenge);
    if (!nonce) return fail("the helper's challenge is malformed");
    return send(encodeNonce(xpc::MessageKind::challengeResponse, *nonce), deadline);
  }

  bool exchange(const XPCOperation& operation, const std::vector<Value>& arguments,
                Deadline deadline, std::vector<Value>& values) {
    if (!connection) return fail("not connected to the helper");
    const std::string request = xpc::encodeRequest(++lastCall, operation.selector, arguments);
    if (request.size() > xpc::maxRequestSize) return fail("the request is too long");
    std::string message;
    if (!send(request, deadline) || !receive(message, deadline, closed)) return false;
    auto reply = xpc::decodeReply(message, operation.reply);
    if (!reply || reply->callNumber != lastCall) return fail("the helper's answer is malformed");
    values = std::move(reply->values);
    return true;
  }

  bool send(std::string_view message, Deadline deadline) {
    const ssize_t sent = untilDone(SO_SNDTIMEO, deadline, [&] {
      return ::send(connection.get(), message.data(), message.size(), MSG_NOSIGNAL);
    });
    if (sent >= 0) return true;
    return errno == EAGAIN ? failLate() : fail(closed);
  }

  bool receive(std::string& message, Deadline deadline, const char* whenClosed) {
    message.resize(xpc::maxReplySize);
    // With MSG_TRUNC the result is the message's own size, also when it did not fit.
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

  /// Repeats a blocking call that a signal interrupts; a signal is no reason to give up. EAGAIN
  /// says that the deadline has come.
  template <class Call>
  ssize_t untilDone(int direction, Deadline deadline, const Call& blockingCall) const {
    for (;;) {
      if (!xpc::limitBlocking(connection.get(), direction, deadline)) {
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

namespace {

/// The types of the values are those of the operation's table entry, which have been checked.
std::optional<FanControlClient::Outcome> outcomeOf(std::optional<std::vector<Value>> values) {
  if (!values) return std::nullopt;
  FanControlClient::Outcome outcome{std::get<bool>(values->at(0)), std::nullopt};
  if (auto* message = std::get_if<std::string>(&values->at(1))) {
    outcome.message = std::move(*message);
  }
  return outcome;
}

template <class Result>
std::optional<Result> resultOf(std::optional<std::vector<Value>> values) {
  if (!values) return std::nullopt;
  return std::get<Result>(std::move(values->at(0)));
}

}  // namespace

std::optional<FanControlClient::Outcome> FanControlClient::writeFanKey(const std::string& key,
                                                                       std::int64_t value,
                                                                       bool isFloat) {
  return outcomeOf(implementation->call(writeOperation, {key, value, isFloat}));
}

std::optional<FanControlClient::Outcome> FanControlClient::restoreAuto() {
  return outcomeOf(implementation->call(restoreOperation));
}

std::optional<StatusReport> FanControlClient::status() {
  return resultOf<StatusReport>(implementation->call(statusOperation));
}

std::optional<std::string> FanControlClient::ping() {
  return resultOf<std::string>(implementation->call(pingOperation));
}

}  // namespace quorvane
