// Fakes of the unified log, which discards all messages, and of sysctlbyname, which always returns
// the same model name.
#include <os/log.h>
#include <sys/sysctl.h>

#include <cstring>

os_log_t os_log_create(const char* /*subsystem*/, const char* /*category*/) {
  return nullptr;
}

/// The log macros of macOS call this first.
bool os_log_type_enabled(os_log_t /*log*/, os_log_type_t /*type*/) {
  return false;
}

/// The log macros of Linux call this.
void quorvane_os_log(os_log_t /*log*/, os_log_type_t /*type*/, const char* /*format*/, ...) {}

int sysctlbyname(const char* /*name*/, void* oldp, size_t* oldlenp, void*, size_t) {
  constexpr char value[] = "Mac14,2";
  if (oldp != nullptr) std::memcpy(oldp, value, sizeof value);
  *oldlenp = sizeof value;
  return 0;
}
