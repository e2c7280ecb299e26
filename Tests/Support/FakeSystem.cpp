#include "Support/FakeSystem.h"

#include <os/log.h>
#include <sys/sysctl.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>

struct os_log_s {
  std::string category;
};

namespace quorvane {

FakeSystem& fakeSystem() {
  static FakeSystem system;
  return system;
}

}  // namespace quorvane

using quorvane::fakeSystem;

os_log_t os_log_create(const char* /*subsystem*/, const char* category) {
  static auto& logs = *new std::vector<os_log_t>;
  return logs.emplace_back(new os_log_s{category});
}

void quorvane_os_log(os_log_t log, os_log_type_t type, const char* format, ...) {
  std::string plain = format;
  for (std::size_t at; (at = plain.find("{public}")) != std::string::npos;) plain.erase(at, 8);
  char text[256];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, plain.c_str(), arguments);
  va_end(arguments);
  const std::string level = type == OS_LOG_TYPE_ERROR ? "error " : "";
  fakeSystem().log.push_back(level + log->category + ": " + text);
}

int sysctlbyname(const char* /*name*/, void* oldp, size_t* oldlenp, void*, size_t) {
  const std::string value = fakeSystem().model.value_or("");
  if (oldp != nullptr) std::copy_n(value.begin(), *oldlenp, static_cast<char*>(oldp));
  *oldlenp = value.size();
  return value.empty() ? -1 : 0;
}
