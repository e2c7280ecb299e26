// Where a path of the platform is to be opened. The one place that knows of a relocated system
// root; callable from any thread.
#pragma once

#include <string>
#include <string_view>

namespace quorvane {

/// Maps an absolute platform path ("/run/...", "/Library/...") to the path to open. The identity on
/// macOS; on Linux the value of QUORVANE_ROOT, when set, is put in front. The environment is read
/// once, at the first call.
std::string systemPath(std::string_view path);

}  // namespace quorvane
