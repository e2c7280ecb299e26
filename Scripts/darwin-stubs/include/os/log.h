// The unified-log calls that the helper uses, declared from macOS's documentation. As there, a
// message must be a literal and the compiler checks its arguments and their privacy annotations.
#pragma once

#include <stdint.h>

typedef struct os_log_s* os_log_t;
typedef uint8_t os_log_type_t;

#define OS_LOG_TYPE_DEFAULT (static_cast<os_log_type_t>(0x00))
#define OS_LOG_TYPE_ERROR (static_cast<os_log_type_t>(0x10))

extern "C" {

extern struct mach_header __dso_handle;

os_log_t os_log_create(const char* subsystem, const char* category);
bool os_log_type_enabled(os_log_t log, os_log_type_t type);
void _os_log_impl(void* dso, os_log_t log, os_log_type_t type, const char* format, uint8_t* buffer,
                  uint32_t size);

}  // extern "C"

#define os_log_with_type(log, type, format, ...)                                               \
  __extension__({                                                                              \
    static_assert(__builtin_constant_p(format), "a message must be a literal");                \
    if (os_log_type_enabled(log, type)) {                                                      \
      uint8_t buffer_[__builtin_os_log_format_buffer_size(format __VA_OPT__(, ) __VA_ARGS__)]; \
      _os_log_impl(&__dso_handle, log, type, format,                                           \
                   static_cast<uint8_t*>(                                                      \
                       __builtin_os_log_format(buffer_, format __VA_OPT__(, ) __VA_ARGS__)),   \
                   sizeof buffer_);                                                            \
    }                                                                                          \
  })

#define os_log(log, ...) os_log_with_type(log, OS_LOG_TYPE_DEFAULT, __VA_ARGS__)
#define os_log_error(log, ...) os_log_with_type(log, OS_LOG_TYPE_ERROR, __VA_ARGS__)
