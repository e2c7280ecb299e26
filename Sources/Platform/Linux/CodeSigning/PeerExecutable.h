// The executable of a process that wants to be admitted. Of the process nothing is trusted: whoever
// makes a user namespace is root in it.
#pragma once

#include <sys/types.h>

#include "Platform/File.h"

namespace quorvane::codesigning {

/// The executable of the process, open for reading. Whether the number is still that of the process
/// which is meant is for the caller to know. Nothing when it cannot be had, when the process has
/// ended, or when the process lives in a user or pid namespace other than ours: there it may choose
/// what /proc shows for it (PR_SET_MM_EXE_FILE, prctl(2)), or be spoken for by the namespace's root
/// (SCM_CREDENTIALS, unix(7)). What a user can do to a process of their own in ours, see
/// Documentation/code-identity.md, is not detected.
Descriptor openPeerExecutable(pid_t pid);

}  // namespace quorvane::codesigning
