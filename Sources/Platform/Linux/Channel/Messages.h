// The messages of the channel as bytes, version 2. One datagram is one message; integers are
// little-endian:
//
//   message = version:u8 kind:u8 call:u32 body
//   body    = nonce                          challenge (kind 1) and its response (2), call 0
//           | opcode:u8 fields               request (3)
//           | fields                         reply (4), under the call number of its request
//
//   opcode  operation    fields of the request               fields of the reply
//   1       writeFanKey  value:i64 isFloat:bool key:text?    success:bool message:text?
//   2       restoreAuto                                      success:bool message:text?
//   3       status                                           count:u8 (key:text value:text)*
//   4       ping                                             answer:text
//
//   nonce = 32 bytes    bool = 0 | 1    text = length:u16 UTF-8 bytes    text? = 0 | 1 text
//
// Decoding accepts exactly this form. Pure functions; callable from any thread.
// Documentation/channel.md has a worked example.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "QRVFanShared/FanControlXPC.h"

namespace quorvane::xpc {

/// A key has four bytes. The rest is room for a wrong one, which a refusal quotes whole.
inline constexpr std::size_t maxRequestSize = 4096;
/// The longest reply is a status report. Its model has at most 4 KiB, and each byte of it that is
/// not UTF-8 becomes a U+FFFD of three bytes.
inline constexpr std::size_t maxReplySize = 4 * maxRequestSize;

enum class MessageKind : std::uint8_t { challenge = 1, response, request, reply };

/// A peer must echo it to show that it is alive and reads this connection.
using Nonce = std::array<std::uint8_t, 32>;

struct WriteFanKeyRequest {
  static constexpr std::uint8_t opcode = 1;
  std::string key;
  std::int64_t value = 0;
  bool isFloat = false;
};
struct RestoreAutoRequest {
  static constexpr std::uint8_t opcode = 2;
};
struct StatusRequest {
  static constexpr std::uint8_t opcode = 3;
};
struct PingRequest {
  static constexpr std::uint8_t opcode = 4;
};

using Operation = std::variant<WriteFanKeyRequest, RestoreAutoRequest, StatusRequest, PingRequest>;

struct Request {
  std::uint32_t callNumber = 0;
  Operation operation;
};

/// REQUIRES: `kind` is challenge or response.
std::string encodeNonce(MessageKind kind, const Nonce& nonce);
std::optional<Nonce> decodeNonce(MessageKind kind, std::string_view message);

/// REQUIRES: no text is longer than 65,535 bytes, and a status report has at most 255 entries. The
/// sender and the receiver enforce the bounds above.
std::string encodeRequest(std::uint32_t callNumber, const Operation& operation);
std::string encodeReply(std::uint32_t callNumber, const Outcome& outcome);
std::string encodeReply(std::uint32_t callNumber, const StatusReport& report);
std::string encodeReply(std::uint32_t callNumber, const std::string& answer);

/// An absent key decodes to the empty string.
std::optional<Request> decodeRequest(std::string_view message);

/// Decodes the reply to the request of that number: Outcome, StatusReport or the text of a ping.
template <class Reply>
std::optional<Reply> decodeReply(std::string_view message, std::uint32_t callNumber);

}  // namespace quorvane::xpc
