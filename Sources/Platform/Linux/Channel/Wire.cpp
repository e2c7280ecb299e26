#include "Platform/Linux/Channel/Wire.h"

#include <algorithm>
#include <set>
#include <utility>

#include "Platform/UTF8.h"

namespace quorvane::xpc {
namespace {

constexpr std::uint8_t protocolVersion = 1;
/// A message that belongs to no call bears this number.
constexpr std::uint32_t noCall = 0;

enum class Tag : std::uint8_t { null, boolean, int64, string, dictionary };

template <class Unsigned>
void appendInteger(std::string& bytes, Unsigned value) {
  for (std::size_t i = 0; i < sizeof value; ++i) {
    bytes.push_back(static_cast<char>(static_cast<std::uint8_t>(value >> (8 * i))));
  }
}

void appendText(std::string& bytes, std::string_view text) {
  appendInteger(bytes, static_cast<std::uint32_t>(text.size()));
  bytes.append(text);
}

void appendTag(std::string& bytes, Tag tag) {
  appendInteger(bytes, static_cast<std::uint8_t>(tag));
}

/// Writes the alternative that a value holds.
struct ValueWriter {
  std::string& bytes;

  void operator()(std::monostate) const { appendTag(bytes, Tag::null); }
  void operator()(bool value) const {
    appendTag(bytes, Tag::boolean);
    appendInteger(bytes, static_cast<std::uint8_t>(value ? 1 : 0));
  }
  void operator()(std::int64_t value) const {
    appendTag(bytes, Tag::int64);
    appendInteger(bytes, static_cast<std::uint64_t>(value));
  }
  void operator()(const std::string& text) const {
    appendTag(bytes, Tag::string);
    appendText(bytes, text);
  }
  void operator()(const StatusReport& dictionary) const {
    appendTag(bytes, Tag::dictionary);
    appendInteger(bytes, static_cast<std::uint32_t>(dictionary.size()));
    for (const auto& [key, value] : dictionary) {
      appendText(bytes, key);
      appendText(bytes, value);
    }
  }
};

std::string header(MessageKind kind, std::uint32_t callNumber) {
  std::string bytes;
  appendInteger(bytes, protocolVersion);
  appendInteger(bytes, static_cast<std::uint8_t>(kind));
  appendInteger(bytes, callNumber);
  return bytes;
}

/// Takes a message apart from its front. A length is believed only as far as there are bytes.
class Reader {
 public:
  explicit Reader(std::string_view message) : rest(message) {}

  /// The call number of a message of this kind.
  std::optional<std::uint32_t> header(MessageKind kind) {
    if (integer<std::uint8_t>() != protocolVersion) return std::nullopt;
    if (integer<std::uint8_t>() != static_cast<std::uint8_t>(kind)) return std::nullopt;
    return integer<std::uint32_t>();
  }

  std::optional<std::string_view> bytes(std::size_t count) {
    if (rest.size() < count) return std::nullopt;
    const std::string_view taken = rest.substr(0, count);
    rest.remove_prefix(count);
    return taken;
  }

  std::optional<std::string_view> text() {
    const auto length = integer<std::uint32_t>();
    const auto taken = length ? bytes(*length) : std::nullopt;
    return taken && isValidUTF8(*taken) ? taken : std::nullopt;
  }

  /// Values of just these types, up to the end of the message.
  std::optional<std::vector<Value>> values(MessageKind kind, std::span<const XPCType> types) {
    std::vector<Value> result;
    for (const XPCType type : types) {
      std::optional<Value> next = value(kind, type);
      if (!next) return std::nullopt;
      result.push_back(std::move(*next));
    }
    if (!atEnd()) return std::nullopt;
    return result;
  }

  [[nodiscard]] bool atEnd() const { return rest.empty(); }

 private:
  template <class Unsigned>
  std::optional<Unsigned> integer() {
    const auto taken = bytes(sizeof(Unsigned));
    if (!taken) return std::nullopt;
    std::uint64_t result = 0;
    for (std::size_t i = sizeof(Unsigned); i-- > 0;) {
      result = result << 8 | static_cast<std::uint8_t>((*taken)[i]);
    }
    return static_cast<Unsigned>(result);
  }

  std::optional<Value> value(MessageKind kind, XPCType type) {
    const auto byte = integer<std::uint8_t>();
    if (!byte) return std::nullopt;
    const Tag tag{*byte};
    switch (type) {
      case XPCType::boolean:
        return tag == Tag::boolean ? boolean() : std::nullopt;
      case XPCType::int64:
        return tag == Tag::int64 ? int64() : std::nullopt;
      case XPCType::string:
        if (tag == Tag::null && kind == MessageKind::request) return Value(std::string());
        return tag == Tag::string ? string() : std::nullopt;
      case XPCType::optionalString:
        if (tag == Tag::null) return Value();
        return tag == Tag::string ? string() : std::nullopt;
      case XPCType::stringDictionary:
        return tag == Tag::dictionary ? dictionary() : std::nullopt;
    }
    return std::nullopt;
  }

  std::optional<Value> boolean() {
    const auto byte = integer<std::uint8_t>();
    if (!byte || *byte > 1) return std::nullopt;
    return Value(*byte == 1);
  }

  std::optional<Value> int64() {
    const auto bits = integer<std::uint64_t>();
    if (!bits) return std::nullopt;
    return Value(static_cast<std::int64_t>(*bits));
  }

  std::optional<Value> string() {
    const auto taken = text();
    if (!taken) return std::nullopt;
    return Value(std::string(*taken));
  }

  std::optional<Value> dictionary() {
    const auto count = integer<std::uint32_t>();
    if (!count) return std::nullopt;
    StatusReport result;
    std::set<std::string_view> keys;
    for (std::uint32_t i = 0; i < *count; ++i) {
      const auto key = text();
      const auto value = key ? text() : std::nullopt;
      if (!value || !keys.insert(*key).second) return std::nullopt;
      result.emplace_back(*key, *value);
    }
    return Value(std::move(result));
  }

  std::string_view rest;
};

}  // namespace

std::string encodeNonce(MessageKind kind, const Nonce& nonce) {
  std::string message = header(kind, noCall);
  message.append(nonce.begin(), nonce.end());
  return message;
}

std::optional<Nonce> decodeNonce(MessageKind kind, std::string_view message) {
  Reader reader(message);
  if (reader.header(kind) != noCall) return std::nullopt;
  Nonce nonce{};
  const auto bytes = reader.bytes(nonce.size());
  if (!bytes || !reader.atEnd()) return std::nullopt;
  std::copy(bytes->begin(), bytes->end(), nonce.begin());
  return nonce;
}

std::string encodeRequest(std::uint32_t callNumber, std::string_view selector,
                          std::span<const Value> arguments) {
  std::string message = header(MessageKind::request, callNumber);
  appendText(message, selector);
  for (const Value& argument : arguments) std::visit(ValueWriter{message}, argument);
  return message;
}

std::string encodeReply(std::uint32_t callNumber, std::span<const Value> values) {
  std::string message = header(MessageKind::reply, callNumber);
  for (const Value& value : values) std::visit(ValueWriter{message}, value);
  return message;
}

std::optional<Request> decodeRequest(std::string_view message,
                                     std::span<const XPCOperation> operations) {
  Reader reader(message);
  const auto callNumber = reader.header(MessageKind::request);
  const auto selector = callNumber ? reader.text() : std::nullopt;
  if (!selector) return std::nullopt;
  const auto operation =
      std::find_if(operations.begin(), operations.end(),
                   [&](const XPCOperation& each) { return each.selector == *selector; });
  if (operation == operations.end()) return std::nullopt;
  auto arguments = reader.values(MessageKind::request, operation->arguments);
  if (!arguments) return std::nullopt;
  return Request{*callNumber, &*operation, std::move(*arguments)};
}

std::optional<Reply> decodeReply(std::string_view message, std::span<const XPCType> types) {
  Reader reader(message);
  const auto callNumber = reader.header(MessageKind::reply);
  if (!callNumber) return std::nullopt;
  auto values = reader.values(MessageKind::reply, types);
  if (!values) return std::nullopt;
  return Reply{*callNumber, std::move(*values)};
}

}  // namespace quorvane::xpc
