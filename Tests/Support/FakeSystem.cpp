#include "Support/FakeSystem.h"

#include <os/log.h>
#include <sys/sysctl.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>

struct os_log_s {
  std::string subsystem, category;
};

namespace quorvane {

FakeSystem& fakeSystem() {
  static FakeSystem system;
  return system;
}

}  // namespace quorvane

using quorvane::fakeSystem;

os_log_t os_log_create(const char* subsystem, const char* category) {
  static std::vector<std::unique_ptr<os_log_s>> logs;
  return logs.emplace_back(new os_log_s{subsystem, category}).get();
}

void quorvane_os_log(os_log_t log, os_log_type_t type, const char* format, ...) {
  std::string plain = format;
  for (std::size_t at; (at = plain.find("{public}")) != std::string::npos;) plain.erase(at, 8);
  char text[256];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, plain.c_str(), arguments);
  va_end(arguments);
  fakeSystem().log.push_back({type == OS_LOG_TYPE_ERROR, log->category, text});
}

int sysctlbyname(const char* name, void* oldp, size_t* oldlenp, void*, size_t) {
  if (name != std::string_view("hw.model") || !fakeSystem().model) return -1;
  const std::string& value = *fakeSystem().model;
  if (oldp != nullptr) {
    ++fakeSystem().modelReads;
    std::memcpy(oldp, value.data(), std::min(*oldlenp, value.size()));
  }
  *oldlenp = value.size();
  return 0;
}
