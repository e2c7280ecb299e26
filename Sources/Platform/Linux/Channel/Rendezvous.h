// Where clients meet the process that serves a Mach service name: a socket in the file system. A
// lock beside it lets only one process listen there. Used from the main thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Platform/File.h"
#include "Platform/SystemPath.h"

namespace quorvane::xpc {

/// Returns the path of a Mach service's socket, below the system root.
inline std::string machServiceSocketPath(std::string_view name) {
  return systemPath("/run/quorvane/").append(name);
}

/// Makes `socket` listen at the name's path. Takes the lock if this process does not hold it yet.
/// Returns nothing on success, else the reason in one line.
std::optional<std::string> openRendezvous(const std::string& name, Descriptor& socket);

}  // namespace quorvane::xpc
