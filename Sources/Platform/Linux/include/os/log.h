// The unified-log calls that the helper uses, with the names of macOS's <os/log.h>. A message goes
// to the journal if there is one, else to standard error. Logging never blocks and never fails.
// Callable from any thread.
#pragma once

#include <stdint.h>

typedef struct os_log_s* os_log_t;

typedef uint8_t os_log_type_t;
#define OS_LOG_TYPE_DEFAULT (static_cast<os_log_type_t>(0x00))
#define OS_LOG_TYPE_ERROR (static_cast<os_log_type_t>(0x10))

extern "C" {

/// The log lives until the process ends.
os_log_t os_log_create(const char* subsystem, const char* category);

/// Called by the macros below. `format` is printf's, with privacy annotations such as `%{public}s`.
void quorvane_os_log(os_log_t log, os_log_type_t type, const char* format, ...);

}  // extern "C"

#define os_log(log, ...) quorvane_os_log(log, OS_LOG_TYPE_DEFAULT, __VA_ARGS__)
#define os_log_error(log, ...) quorvane_os_log(log, OS_LOG_TYPE_ERROR, __VA_ARGS__)
