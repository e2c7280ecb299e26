// The question that admission asks about a peer's executable. The seam between the channel and code
// signatures: a test puts its own answer in the place of PeerIdentity.cpp. Callable from any
// thread, which it may block on files.
#pragma once

#include <string_view>

namespace quorvane::xpc {

/// Whether the executable, open for reading, bears a valid signature whose identity satisfies the
/// requirement. False also when the requirement's text cannot be parsed.
bool satisfiesRequirement(int executable, std::string_view requirement);

}  // namespace quorvane::xpc
