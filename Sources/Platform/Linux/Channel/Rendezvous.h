// Where clients meet the process that serves a Mach service name: a socket in the file system, and
// beside it the lock that makes this process the only one to listen there. Used from the main
// thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Platform/File.h"
#include "Platform/SystemPath.h"

namespace quorvane::xpc {

/// The socket at which a Mach service of this name is met, below the system root.
inline std::string machServiceSocketPath(std::string_view name) {
  return systemPath("/run/quorvane/").append(name);
}

/// Makes `socket` listen at the name's rendezvous, taking the lock if this process does not hold
/// it yet. Yields why nobody can connect, in one line.
std::optional<std::string> openRendezvous(const std::string& name, Descriptor& socket);

}  // namespace quorvane::xpc
