// Maps platform paths to the paths to open. Only this module reads QUORVANE_ROOT, the system root;
// callable from any thread.
#pragma once

#include <string>
#include <string_view>

namespace quorvane {

/// Maps an absolute platform path ("/run/...", "/Library/...") to the path to open. The identity on
/// macOS. On Linux it prepends the value that QUORVANE_ROOT has at the first call, if set.
std::string systemPath(std::string_view path);

}  // namespace quorvane
