// The least that a server can do for the same service: a process that echoes what it receives, and
// does nothing else but what is asked for here. Calls over it are made like calls to the helper.
#pragma once

#include <string>
#include <vector>

#include "Processes.h"

namespace quorvane::bench {

enum class FloorWork : char {
  echo = 'e',        ///< receive with credentials, send
  hop = 'h',         ///< the same, sent by another thread
  hopAndLine = 'l',  ///< which before appends a line to a file: open, seek, write, close
};

struct Floor {
  /// With a client for each channel. `root` is the machine beside whose audit log the file is.
  /// Several words of `wrapper` may stand before the command.
  Floor(FloorWork work, const std::string& root, int clients = 1,
        std::vector<std::string> wrapper = {});

  std::vector<Channel> channels;
  std::vector<Descriptor> served;  // the other ends, until the server has them
  Program server;
};

/// The role of the process itself: arguments as Floor gives them. Ends with its clients.
int serveAsFloor(const std::vector<std::string>& arguments);

}  // namespace quorvane::bench
