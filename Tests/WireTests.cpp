#include "Platform/Linux/XPC/Wire.h"

#include <gtest/gtest.h>

#include <limits>

namespace quorvane::xpc {
namespace {

using namespace std::string_literals;
using Values = std::vector<Value>;
using Integers = std::numeric_limits<std::int64_t>;

const auto& [writeOperation, restoreOperation, statusOperation, pingOperation] =
    fanControlOperations;

std::string write(const Values& arguments) {
  return encodeRequest(~0U, writeOperation.selector, arguments);
}

std::optional<Values> requested(std::string_view bytes) {
  const auto request = decodeRequest(bytes, fanControlOperations);
  return request ? std::optional(request->arguments) : std::nullopt;
}

std::optional<Values> replied(const XPCOperation& operation, std::string_view bytes) {
  const auto reply = decodeReply(bytes, operation.reply);
  return reply ? std::optional(reply->values) : std::nullopt;
}

template <class Decode>
void expectExactLength(const std::string& message, const Decode& decode) {
  for (std::size_t size = 0; size < message.size(); ++size) {
    EXPECT_FALSE(decode(message.substr(0, size))) << "cut to " << size;
  }
  EXPECT_FALSE(decode(message + '\0')) << "trailing byte";
}

// The worked example of Documentation/channel.md, byte for byte.
const std::string writeRequest =
    "\x01\x03\x07\0\0\0\x20\0\0\0writeFanKey:value:isFloat:reply:"
    "\x03\x04\0\0\0F0Tg\x02\xE1\x2E\0\0\0\0\0\0\x01\0"s;
const std::string refusal = "\x01\x04\x07\0\0\0\x01\0\x03\x10\0\0\0RPM out of range"s;

TEST(Wire, DocumentedExampleReadsAndWrites) {
  const Values arguments{"F0Tg"s, std::int64_t{12001}, false}, values{false, "RPM out of range"s};
  EXPECT_EQ(encodeRequest(7, writeOperation.selector, arguments), writeRequest);
  EXPECT_EQ(requested(writeRequest), arguments);
  expectExactLength(writeRequest, requested);

  EXPECT_EQ(encodeReply(7, values), refusal);
  EXPECT_EQ(replied(writeOperation, refusal), values);
  expectExactLength(refusal, [](auto bytes) { return replied(writeOperation, bytes); });
}

TEST(Wire, ExtremeAndAbsentValuesSurvive) {
  const Values rows[] = {{""s, Integers::min(), true},
                         {"\xE2\x80\x94\0\xF0\x9F\x8C\x80"s, Integers::max(), false}};
  for (const Values& row : rows) EXPECT_EQ(requested(write(row)), row);
  EXPECT_EQ(requested(write({Value(), Integers::max(), true})),
            (Values{""s, Integers::max(), true}));

  const Values report{StatusReport{{"version", "1.0.0"}, {"forcedFans", ""}, {"", "\xC3\xA9"}}};
  EXPECT_EQ(replied(statusOperation, encodeReply(1, report)), report) << "in its own order";
  const Values done{true, Value()};
  EXPECT_EQ(replied(restoreOperation, encodeReply(1, done)), done);
}

TEST(Wire, MalformedRequestsAreNone) {
  const auto replaced = [](std::size_t at, std::string_view bytes) {
    return std::string(writeRequest).replace(at, bytes.size(), bytes);
  };
  const Value key = "F0Tg"s, one = std::int64_t{1}, pair = StatusReport{{"F0Tg", "1"}};
  const std::pair<const char*, std::string> rows[] = {
      {"newer version", replaced(0, "\x02")},
      {"kind of a challenge response", replaced(1, "\x02")},
      {"unknown kind", replaced(1, "\x05")},
      {"selector one byte short", replaced(6, "\x1F")},
      {"selector beyond the message", replaced(6, "\xFF\xFF\xFF\xFF")},
      {"unknown selector", replaced(10, "W")},
      {"unknown tag", replaced(42, "\x05")},
      {"key one byte short", replaced(43, "\x03")},
      {"key beyond the message", replaced(43, "\xFF\xFF\xFF\xFF")},
      {"key not UTF-8", replaced(47, "\xFF")},
      {"boolean that is neither", replaced(61, "\x02")},
      {"an argument missing", write({key, one})},
      {"an argument too many", write({key, one, true, true})},
      {"arguments in another order", write({one, key, true})},
      {"dictionary for key", write({pair, one, true})},
      {"null for number", write({key, Value(), true})},
      {"null for boolean", write({key, one, Value()})},
      {"argument to a ping", encodeRequest(1, pingOperation.selector, Values{one})},
  };
  for (const auto& [what, bytes] : rows) EXPECT_FALSE(requested(bytes)) << what;
}

TEST(Wire, MalformedRepliesAreNone) {
  const std::string entry = "\x01\0\0\0k\x01\0\0\0v"s;
  const std::string header = encodeReply(1, {}) + '\x04';
  ASSERT_TRUE(replied(statusOperation, header + "\x01\0\0\0"s + entry));
  const std::tuple<const char*, const XPCOperation&, std::string> rows[] = {
      {"duplicate key", statusOperation, header + "\x02\0\0\0"s + entry + entry},
      {"entries beyond the count", statusOperation, header + "\0\0\0\0"s + entry},
      {"count beyond the entries", statusOperation, header + "\xFF\xFF\xFF\xFF" + entry},
      {"null for dictionary", statusOperation, encodeReply(1, Values{Value()})},
      {"null for string", pingOperation, encodeReply(1, Values{Value()})},
      {"null for boolean", writeOperation, encodeReply(1, Values{Value(), Value()})},
      {"a request", writeOperation, writeRequest},
  };
  for (const auto& [what, operation, bytes] : rows) EXPECT_FALSE(replied(operation, bytes)) << what;
}

TEST(Wire, BoundsHoldAtTheLimitAndOnePast) {
  const std::size_t room = maxRequestSize - (writeRequest.size() - 4);
  const auto keyOf = [](std::size_t size) {
    return requested(write({std::string(size, 'k'), Integers::max(), true}));
  };
  EXPECT_TRUE(keyOf(room));
  EXPECT_FALSE(keyOf(room + 1));
  const std::size_t replyRoom = maxReplySize - 11;
  const auto answerOf = [](std::size_t size) {
    return replied(pingOperation, encodeReply(1, Values{std::string(size, 'p')}));
  };
  EXPECT_TRUE(answerOf(replyRoom));
  EXPECT_FALSE(answerOf(replyRoom + 1));
}

TEST(Wire, NonceHasOneForm) {
  const Nonce nonce{0xFF, 0x00, 0x80};
  std::string message = encodeNonce(MessageKind::challenge, nonce);
  const auto decode = [](auto bytes) { return decodeNonce(MessageKind::challenge, bytes); };
  EXPECT_EQ(decode(message), nonce);
  expectExactLength(message, decode);
  EXPECT_FALSE(decodeNonce(MessageKind::challengeResponse, message));
  message[2] = 1;
  EXPECT_FALSE(decode(message)) << "call number";
}

}  // namespace
}  // namespace quorvane::xpc
