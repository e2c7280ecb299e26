#include "Platform/Linux/Channel/Messages.h"

#include <algorithm>
#include <cassert>
#include <limits>
#include <utility>

#include "Platform/UTF8.h"

namespace quorvane::xpc {
namespace {

constexpr std::uint8_t protocolVersion = 2;
/// The number of a message that belongs to no call.
constexpr std::uint32_t noCall = 0;

class Writer {
 public:
  Writer(MessageKind kind, std::uint32_t callNumber) {
    integer(protocolVersion);
    integer(static_cast<std::uint8_t>(kind));
    integer(callNumber);
  }

  template <class Unsigned>
  void integer(Unsigned value) {
    std::array<char, sizeof value> little{};
    for (std::size_t i = 0; i < sizeof value; ++i) {
      little[i] = static_cast<char>(static_cast<std::uint8_t>(value >> (8 * i)));
    }
    bytes.append(little.data(), little.size());
  }
  void boolean(bool value) { integer(static_cast<std::uint8_t>(value ? 1 : 0)); }
  void text(std::string_view value) {
    assert(value.size() <= std::numeric_limits<std::uint16_t>::max());
    integer(static_cast<std::uint16_t>(value.size()));
    bytes.append(value);
  }
  void optionalText(const std::optional<std::string>& value) {
    boolean(value.has_value());
    if (value) text(*value);
  }

  std::string bytes;
};

/// Parses a message from its front. An incomplete part reads as missing, and so does every part
/// after it. Only end() tells whether the message was well-formed.
class Reader {
 public:
  explicit Reader(std::string_view message) : rest(message) {}

  /// Reads the header of a message of that kind. Returns its call number.
  std::uint32_t header(MessageKind kind) {
    require(integer<std::uint8_t>() == protocolVersion);
    require(integer<std::uint8_t>() == static_cast<std::uint8_t>(kind));
    return integer<std::uint32_t>();
  }

  std::string_view take(std::size_t count) {
    require(count <= rest.size());
    if (isMalformed) return {};
    const std::string_view taken = rest.substr(0, count);
    rest.remove_prefix(count);
    return taken;
  }

  template <class Unsigned>
  Unsigned integer() {
    std::uint64_t result = 0;
    const std::string_view taken = take(sizeof(Unsigned));
    for (std::size_t i = taken.size(); i-- > 0;) {
      result = result << 8 | static_cast<std::uint8_t>(taken[i]);
    }
    return static_cast<Unsigned>(result);
  }

  bool boolean() {
    const auto value = integer<std::uint8_t>();
    require(value <= 1);
    return value == 1;
  }

  std::string text() {
    const std::string_view value = take(integer<std::uint16_t>());
    require(isValidUTF8(value));
    return std::string(value);
  }

  std::optional<std::string> optionalText() {
    return boolean() ? std::optional(text()) : std::nullopt;
  }

  void require(bool holds) { isMalformed = isMalformed || !holds; }
  /// Returns whether the message was well-formed and ends here.
  [[nodiscard]] bool end() const { return !isMalformed && rest.empty(); }

 private:
  std::string_view rest;
  bool isMalformed = false;
};

Operation readOperation(Reader& reader) {
  switch (reader.integer<std::uint8_t>()) {
    case WriteFanKeyRequest::opcode: {
      WriteFanKeyRequest request;
      request.value = static_cast<std::int64_t>(reader.integer<std::uint64_t>());
      request.isFloat = reader.boolean();
      request.key = reader.optionalText().value_or("");
      return request;
    }
    case RestoreAutoRequest::opcode:
      return RestoreAutoRequest();
    case StatusRequest::opcode:
      return StatusRequest();
    case PingRequest::opcode:
      return PingRequest();
    default:
      reader.require(false);
      return {};
  }
}

void read(Reader& reader, Outcome& outcome) {
  outcome.success = reader.boolean();
  outcome.message = reader.optionalText();
}

void read(Reader& reader, StatusReport& report) {
  const auto count = reader.integer<std::uint8_t>();
  for (unsigned i = 0; i < count; ++i) {
    std::string key = reader.text();
    const auto same = std::ranges::find(report, key, &StatusReport::value_type::first);
    reader.require(same == report.end());
    report.emplace_back(std::move(key), reader.text());
  }
}

void read(Reader& reader, std::string& answer) {
  answer = reader.text();
}

}  // namespace

std::string encodeNonce(MessageKind kind, const Nonce& nonce) {
  Writer writer(kind, noCall);
  writer.bytes.append(nonce.begin(), nonce.end());
  return std::move(writer.bytes);
}

std::optional<Nonce> decodeNonce(MessageKind kind, std::string_view message) {
  Reader reader(message);
  reader.require(reader.header(kind) == noCall);
  Nonce nonce{};
  std::ranges::copy(reader.take(nonce.size()), nonce.begin());
  return reader.end() ? std::optional(nonce) : std::nullopt;
}

std::string encodeRequest(std::uint32_t callNumber, const Operation& operation) {
  Writer writer(MessageKind::request, callNumber);
  writer.integer(std::visit([](const auto& request) { return request.opcode; }, operation));
  if (const auto* write = std::get_if<WriteFanKeyRequest>(&operation)) {
    writer.integer(static_cast<std::uint64_t>(write->value));
    writer.boolean(write->isFloat);
    writer.optionalText(write->key);
  }
  return std::move(writer.bytes);
}

std::string encodeReply(std::uint32_t callNumber, const Outcome& outcome) {
  Writer writer(MessageKind::reply, callNumber);
  writer.boolean(outcome.success);
  writer.optionalText(outcome.message);
  return std::move(writer.bytes);
}

std::string encodeReply(std::uint32_t callNumber, const StatusReport& report) {
  assert(report.size() <= std::numeric_limits<std::uint8_t>::max());
  constexpr std::size_t usualSize = 160;
  Writer writer(MessageKind::reply, callNumber);
  writer.bytes.reserve(usualSize);
  writer.integer(static_cast<std::uint8_t>(report.size()));
  for (const auto& [key, value] : report) {
    writer.text(key);
    writer.text(value);
  }
  return std::move(writer.bytes);
}

std::string encodeReply(std::uint32_t callNumber, const std::string& answer) {
  Writer writer(MessageKind::reply, callNumber);
  writer.text(answer);
  return std::move(writer.bytes);
}

std::optional<Request> decodeRequest(std::string_view message) {
  Reader reader(message);
  Request request{reader.header(MessageKind::request), readOperation(reader)};
  return reader.end() ? std::optional(std::move(request)) : std::nullopt;
}

template <class Reply>
std::optional<Reply> decodeReply(std::string_view message, std::uint32_t callNumber) {
  Reader reader(message);
  reader.require(reader.header(MessageKind::reply) == callNumber);
  Reply reply;
  read(reader, reply);
  return reader.end() ? std::optional(std::move(reply)) : std::nullopt;
}

template std::optional<Outcome> decodeReply(std::string_view, std::uint32_t);
template std::optional<StatusReport> decodeReply(std::string_view, std::uint32_t);
template std::optional<std::string> decodeReply(std::string_view, std::uint32_t);

}  // namespace quorvane::xpc
