// Stands in for the unified log, which takes all and tells nobody, and for sysctl, which knows one
// model.
#include <os/log.h>
#include <sys/sysctl.h>

#include <algorithm>
#include <string_view>

os_log_t os_log_create(const char* /*subsystem*/, const char* /*category*/) {
  return nullptr;
}

/// What the macros of macOS ask first.
bool os_log_type_enabled(os_log_t /*log*/, os_log_type_t /*type*/) {
  return false;
}

/// What those of Linux call.
void quorvane_os_log(os_log_t /*log*/, os_log_type_t /*type*/, const char* /*format*/, ...) {}

int sysctlbyname(const char* /*name*/, void* oldp, size_t* oldlenp, void*, size_t) {
  constexpr std::string_view value("Mac14,2\0", 8);
  if (oldp != nullptr) std::ranges::copy(value, static_cast<char*>(oldp));
  *oldlenp = value.size();
  return 0;
}
