#include "Platform/Linux/XPC/Wire.h"

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

/// Whether the bytes are a reply, to call 1, with a status.
bool isStatus(std::string_view bytes) {
  return decodeReply(bytes, XPCTypes::status).value_or(Reply()).callNumber == 1;
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

TEST(Wire, MalformedMessagesAreNone) {
  for (std::size_t i = 0; i < request.size(); ++i) EXPECT_FALSE(requested({request.data(), i}));
  EXPECT_FALSE(requested(request + '\0'));
  const auto patched = [](unsigned i, char c) { return std::string(request).replace(i, 1, 1, c); };
  // Version, kind, selector's length and text, tag, key's length and text, boolean.
  const std::pair<unsigned, char> patches[] = {{0, 2},       {1, 2},  {6, 0x1F}, {9, '\xFF'},
                                               {10, 'W'},    {42, 5}, {43, 3},   {46, '\xFF'},
                                               {47, '\xFF'}, {61, 2}};
  for (const auto& [i, c] : patches) EXPECT_FALSE(requested(patched(i, c))) << i;
  const Value key = "F0Tg"s, one = std::int64_t{1}, pair = StatusReport{{"F0Tg", "1"}}, null;
  const Values rows[] = {{key, one},        {key, one, true, true}, {one, key, true},
                         {pair, one, true}, {key, null, true},      {key, one, null}};
  for (const Values& row : rows) EXPECT_FALSE(requested(encodeRequest(1, selector, row)));

  const std::string entry = "\x01\0\0\0k\x01\0\0\0v"s, header = encodeReply(1, {}) + '\x04';
  EXPECT_TRUE(isStatus(header + "\x01\0\0\0"s + entry));
  EXPECT_FALSE(isStatus(header + "\x02\0\0\0"s + entry + entry)) << "duplicate key";
  EXPECT_FALSE(isStatus(header + "\xFF\xFF\xFF\xFF" + entry)) << "more than there are bytes for";
}

}  // namespace
}  // namespace quorvane::xpc
