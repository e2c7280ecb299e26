// The only sysctl call that the helper uses, with macOS's signature. Supports "hw.model" only.
// Callable from any thread.
#pragma once

#include <stddef.h>

extern "C" {

/// Returns 0, or -1 with errno: ENOENT for a name without a value here, ENOMEM if the value (NUL
/// included) is longer than `*oldlenp`, EPERM for an attempt to set one. A null `oldp` yields the
/// size.
int sysctlbyname(const char* name, void* oldp, size_t* oldlenp, void* newp, size_t newlen);

}  // extern "C"
