// The one sysctl call that the helper uses, with macOS's signature. Knows "hw.model". Callable from
// any thread.
#pragma once

#include <stddef.h>

extern "C" {

/// 0, or -1 with errno: ENOENT for a name that has no value here, ENOMEM when the value (NUL
/// included) is longer than `*oldlenp`, EPERM for an attempt to set one. With `oldp` null only the
/// size is reported.
int sysctlbyname(const char* name, void* oldp, size_t* oldlenp, void* newp, size_t newlen);

}  // extern "C"
