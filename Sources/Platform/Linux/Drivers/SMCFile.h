// The file in which a simulated machine lives, one for all processes that use it. Opened, locked,
// read and closed anew for each call, so that nobody holds stale state; a holder that stops holds
// up the others, like hardware that does not answer. An object is for one thread.
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

/// The system path of the file.
inline constexpr std::string_view smcPath = "/var/lib/quorvane/smc";

class SMCFile {
 public:
  enum class Access { read, change };

  /// Waits for the lock and reads the machine. 0, or an errno value: ENOENT without a file, EBADMSG
  /// for one that is cut short or holds something else. To be called once.
  int open(const std::string& path, Access access);

  /// Writes the machine back. 0 or an errno value. REQUIRES: open for change.
  int save() const;

  /// Puts a file with that machine at the path, at once and in the place of one that is there; a
  /// missing folder is made. 0 or an errno value.
  static int create(const std::string& path, const SMCMachine& machine);

  SMCMachine machine;

 private:
  Descriptor file;  // closing it gives the lock back
};

}  // namespace quorvane::simulation
