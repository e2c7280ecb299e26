// What the helper and its companions have to agree on: the bytes between them, and the texts that
// installed ones and their signatures depend on, spelt out whole.
#include "Platform/Linux/Channel/Wire.h"

#include <gtest/gtest.h>

namespace quorvane::xpc {
namespace {

using namespace std::string_literals;
using Values = std::vector<Value>;
const std::string_view selector = fanControlOperations[0].selector;

std::optional<Values> requested(std::string_view bytes) {
  const auto request = decodeRequest(bytes, fanControlOperations);
  return request ? std::optional(request->arguments) : std::nullopt;
}

// The worked example of Documentation/channel.md, byte for byte.
const std::string request =
    "\x01\x03\x07\0\0\0\x20\0\0\0writeFanKey:value:isFloat:reply:"
    "\x03\x04\0\0\0F0Tg\x02\xE1\x2E\0\0\0\0\0\0\x01\0"s;
const std::string refusal = "\x01\x04\x07\0\0\0\x01\0\x03\x10\0\0\0RPM out of range"s;

TEST(Wire, ValuesPassUnchanged) {
  const Values example{"F0Tg"s, std::int64_t{12001}, false}, refused{false, "RPM out of range"s};
  EXPECT_EQ(encodeRequest(7, selector, example), request);
  EXPECT_EQ(requested(request), example);
  EXPECT_EQ(encodeReply(7, refused), refusal);
  const Values absent{Value(), INT64_MIN, true}, empty{""s, INT64_MIN, true};
  EXPECT_EQ(requested(encodeRequest(1, selector, absent)), empty);
}

// The fuzz target "channel" has the server's side of this, but for what a text may hold.
TEST(Wire, MalformedMessagesAreNone) {
  for (std::size_t i = 0; i < request.size(); ++i) EXPECT_FALSE(requested({request.data(), i}));
  EXPECT_FALSE(requested(request + '\0'));
  EXPECT_FALSE(requested(std::string(request).replace(47, 1, "\xFF"))) << "not UTF-8";
  const auto statusOf = [](const std::string& count, const std::string& entries) {
    return decodeReply(encodeReply(1, {}) + '\x04' + count + entries, XPCTypes::status).has_value();
  };
  const std::string entry = "\x01\0\0\0k\x01\0\0\0v"s;
  EXPECT_TRUE(statusOf("\x01\0\0\0"s, entry));
  EXPECT_FALSE(statusOf("\x02\0\0\0"s, entry + entry)) << "duplicate key";
  EXPECT_FALSE(statusOf("\xFF\xFF\xFF\xFF", entry)) << "more than there are bytes for";
}

TEST(Wire, TextsAreTheAgreedOnes) {
  EXPECT_EQ(FanControlConstants::appCodeRequirement(),
            R"(anchor apple generic and certificate leaf[subject.OU] = "X4TQ8RW2ZN" and )"
            R"((identifier "com.quorvane.app" or identifier "com.quorvane.app-vendra"))");
  EXPECT_EQ(FanControlConstants::helperCodeRequirement,
            R"(identifier "com.quorvane.fanhelper" and anchor apple generic and )"
            R"(certificate leaf[subject.OU] = "X4TQ8RW2ZN")");
  std::string selectors;
  for (const auto& operation : fanControlOperations) selectors.append(operation.selector) += ' ';
  EXPECT_EQ(
      selectors,
      "writeFanKey:value:isFloat:reply: restoreAutoWithReply: statusWithReply: pingWithReply: ");
}

}  // namespace
}  // namespace quorvane::xpc
