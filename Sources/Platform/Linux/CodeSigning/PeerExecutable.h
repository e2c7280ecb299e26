// The executable of a process that asks for admission. The process is not trusted: a user who makes
// a user namespace is root in it.
#pragma once

#include <sys/types.h>

#include "Platform/File.h"

namespace quorvane::codesigning {

/// Opens the executable of the process for reading. The caller ensures that the number is still
/// that of the intended process. The result is empty if the executable cannot be opened, if the
/// process has ended, or if it is in a user or pid namespace other than ours. There the process may
/// choose what /proc shows for it (PR_SET_MM_EXE_FILE, prctl(2)), and the namespace's root may send
/// in its name (SCM_CREDENTIALS, unix(7)). Does not detect what users can do to their own processes
/// in our namespaces, see Documentation/code-identity.md.
Descriptor openPeerExecutable(pid_t pid);

}  // namespace quorvane::codesigning
