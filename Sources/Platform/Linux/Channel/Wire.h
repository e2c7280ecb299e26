// The messages of the channel as bytes. One datagram is one message; integers are little-endian:
//
//   message = version:u8 kind:u8 call:u32 body
//   body    = nonce:32 bytes             challenge and its response, call 0
//           | selector:text value*       request
//           | value*                     reply, under the call number of its request
//   value   = 0 | 1 u8 | 2 i64 | 3 text | 4 count:u32 (key:text value:text)*
//   text    = length:u32 UTF-8 bytes
//
// Nothing is guessed: what is not exactly a message of this form decodes to nothing. Pure
// functions; callable from any thread. Documentation/channel.md has a worked example.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "QRVFanShared/FanControlXPC.h"

namespace quorvane::xpc {

/// No request has a reason to be longer; what a peer can make the helper hold stays small.
inline constexpr std::size_t maxRequestSize = std::size_t{64} * 1024;
/// A refusal quotes the key of its request whole and adds a sentence.
inline constexpr std::size_t maxReplySize = maxRequestSize + 1024;

enum class MessageKind : std::uint8_t { challenge = 1, challengeResponse, request, reply };

/// What a peer must echo to show that it is alive and reads this connection.
using Nonce = std::array<std::uint8_t, 32>;

/// A value on the channel; std::monostate is null, a StatusReport any dictionary of strings.
using Value = std::variant<std::monostate, bool, std::int64_t, std::string, StatusReport>;

struct Request {
  std::uint32_t callNumber = 0;
  /// The entry of the table that the request was checked against.
  const XPCOperation* operation = nullptr;
  std::vector<Value> arguments;
};

struct Reply {
  std::uint32_t callNumber = 0;
  std::vector<Value> values;
};

/// A challenge or a challenge response.
std::string encodeNonce(MessageKind kind, const Nonce& nonce);
std::optional<Nonce> decodeNonce(MessageKind kind, std::string_view message);

/// The encoders write, and the decoders read, what they are given: the bounds above are kept by who
/// sends and who receives.
std::string encodeRequest(std::uint32_t callNumber, std::string_view selector,
                          std::span<const Value> arguments);
std::string encodeReply(std::uint32_t callNumber, std::span<const Value> values);

/// A request of one of the operations, with arguments of just the types that it declares. A null in
/// the place of a string is an absent one and becomes the empty string.
std::optional<Request> decodeRequest(std::string_view message,
                                     std::span<const XPCOperation> operations);

/// A reply with values of just these types.
std::optional<Reply> decodeReply(std::string_view message, std::span<const XPCType> types);

}  // namespace quorvane::xpc
