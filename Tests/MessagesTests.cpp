// The encoding of the messages between the helper and its companions.
#include "Platform/Linux/Channel/Messages.h"

#include <gtest/gtest.h>

namespace quorvane::xpc {

using namespace std::string_literals;

// The worked example of Documentation/channel.md, byte for byte.
const std::string request = "\x02\x03\x07\0\0\0\x01\xE1\x2E\0\0\0\0\0\0\0\x01\x04\0F0Tg"s;
const std::string refusal = "\x02\x04\x07\0\0\0\0\x01\x10\0RPM out of range"s;

std::optional<WriteFanKeyRequest> written(std::string_view message) {
  auto decoded = decodeRequest(message);
  if (!decoded) return std::nullopt;
  return std::get<WriteFanKeyRequest>(std::move(decoded->operation));
}

TEST(Messages, ValuesPassUnchanged) {
  EXPECT_EQ(encodeRequest(7, WriteFanKeyRequest{"F0Tg", 12001, false}), request);
  EXPECT_EQ(written(request)->key, "F0Tg");
  EXPECT_EQ(written(request)->value, 12001);
  EXPECT_EQ(encodeReply(7, Outcome{false, "RPM out of range"}), refusal);
  EXPECT_EQ(decodeReply<Outcome>(refusal, 7)->message, "RPM out of range");
  const std::string absent = request.substr(0, 16) + '\0';
  EXPECT_EQ(written(absent)->key, "") << "an absent key";
  const StatusReport report{{"k", "v"}, {"", ""}};
  EXPECT_EQ(decodeReply<StatusReport>(encodeReply(1, report), 1), report);
}

// The fuzz target "messages" covers the guard's side, but not the valid contents of texts.
TEST(Messages, MalformedOnesAreNone) {
  EXPECT_FALSE(decodeRequest(request.substr(0, 20) + '\xFF')) << "not UTF-8";
  EXPECT_FALSE(decodeReply<Outcome>(refusal, 8)) << "another call's";
  const std::string twice = encodeReply(1, StatusReport{{"k", "v"}, {"k", "w"}});
  EXPECT_FALSE(decodeReply<StatusReport>(twice, 1)) << "a key twice";
}

}  // namespace quorvane::xpc
