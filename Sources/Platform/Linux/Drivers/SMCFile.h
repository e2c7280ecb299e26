// The file of a simulated machine, shared by all processes that use it. Each call opens, locks,
// reads and closes it, so no process has stale state. A holder that stops blocks the others, like
// hardware that does not respond. An object is for one thread.
//
// All numbers little-endian:
//
//   offset  bytes  header                        offset  bytes  each of the 81 slots
//   0       8      "QRVSMC\0\0"                  0       4      key code, 0 for a free slot
//   8       4      version, 1                    4       4      data size, at most 32
//   12      4      number of slots, 81           8       4      data type
//   16      8      nanoseconds since boot at     12      1      attributes
//                  the last change               13      1      failure: 0 none, 1 result, 2 call
//   24             the slots                     14      2      zero
//                                                16      4      failure value, signed
//                                                20      32     data (see Key::data)
#pragma once

#include <string>
#include <string_view>

#include "Platform/File.h"
#include "Platform/Linux/Drivers/SMCMachine.h"

namespace quorvane::simulation {

/// The file's path, below the system root.
inline constexpr std::string_view smcPath = "/var/lib/quorvane/smc";

class SMCFile {
 public:
  enum class Access { read, change };

  /// Waits for the lock and reads the machine. Returns 0 or an errno value: ENOENT if there is no
  /// file, EBADMSG if it is truncated or has other content. Called once.
  int open(const std::string& path, Access access);

  /// Writes the machine back. Returns 0 or an errno value. REQUIRES: open for change.
  int save() const;

  /// Creates the file with that machine, or replaces it atomically. Creates a missing folder.
  /// Returns 0 or an errno value.
  static int create(const std::string& path, const SMCMachine& machine);

  SMCMachine machine;

 private:
  Descriptor file;  // closing it releases the lock
};

}  // namespace quorvane::simulation
