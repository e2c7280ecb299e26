// os_log over the journal's native socket, or standard error if there is no journal. It never waits
// for a reader of the log: a blocked thread could delay a restore. Callable from any thread.
#include <fcntl.h>
#include <os/log.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>

#include "Platform/File.h"
#include "Platform/Linux/Socket.h"
#include "Platform/NoDestructor.h"
#include "Platform/SystemPath.h"
#include "Platform/UTF8.h"

struct os_log_s {
  std::string subsystem;
  std::string category;
};

namespace quorvane {
namespace {

/// Far above any message of ours. Keeps a line within PIPE_BUF, up to which a pipe write is atomic.
constexpr std::size_t maxMessageBytes = 1024;

/// Opens the standard descriptors that are closed. This file writes to descriptor 2: if it is
/// closed, the next file that the process opens gets that number, and then receives log lines. 0
/// and 1 have such users too.
void fillStandardDescriptors() {
  int descriptor = -1;
  do {
    descriptor = open("/dev/null", O_RDWR | O_CLOEXEC | O_NOCTTY);
  } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
  const Descriptor superfluous(descriptor);
}

/// Removes annotations: "%{public}s" is "%s" to printf. "%%" before a brace is a percent sign.
std::string withoutAnnotations(std::string_view format) {
  std::string plain;
  while (!format.empty()) {
    if (format.starts_with("%{")) {
      plain += '%';
      format.remove_prefix(std::min(format.find('}'), format.size() - 1) + 1);
      continue;
    }
    const std::size_t length = format.starts_with("%%") ? 2 : 1;
    plain.append(format.substr(0, length));
    format.remove_prefix(length);
  }
  return plain;
}

/// Formats the message, truncated to `maxMessageBytes`. A truncated character becomes U+FFFD.
std::string formatMessage(const char* format, va_list arguments) {
  std::array<char, maxMessageBytes + 1> buffer{};
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the caller has initialised it.
  vsnprintf(buffer.data(), buffer.size(), withoutAnnotations(format).c_str(), arguments);
  return replacingInvalidUTF8(buffer.data());
}

/// Serialises one field in systemd's "Native Journal Protocol" (JOURNAL_NATIVE_PROTOCOL). The form
/// is NAME=value. For a value with a line feed, it is the name on its own line, then the value's
/// length (64 bits, little-endian) and the value.
void appendField(std::string& datagram, std::string_view name, std::string_view value) {
  datagram.append(name);
  if (value.find('\n') == std::string_view::npos) {
    datagram += '=';
  } else {
    datagram += '\n';
    for (unsigned shift = 0; shift < 64; shift += 8) {
      datagram += static_cast<char>((std::uint64_t{value.size()} >> shift) & 0xFF);
    }
  }
  datagram.append(value) += '\n';
}

/// Writes the line, or drops it if it cannot be written immediately. poll(2) is not enough: it
/// reports a terminal with room for one byte as writable, and two writers can find the same room in
/// a pipe. Descriptor 2 itself must not become non-blocking, because others share its open file.
/// The function therefore opens a pipe or a terminal again, without blocking. A pipe without a
/// reader causes only an error, because the dispatch layer ignores SIGPIPE in the whole process.
void writeToStandardError(std::string_view line) {
  struct stat status {};
  if (fstat(STDERR_FILENO, &status) != 0) return;
  if (S_ISSOCK(status.st_mode)) {
    send(STDERR_FILENO, line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    return;
  }
  // A regular file is written through its shared offset. No reader can block it.
  const bool isFile = S_ISREG(status.st_mode);
  const Descriptor reopened = isFile ? Descriptor() : openFile("/proc/self/fd/2", O_WRONLY);
  [[maybe_unused]] const ssize_t written =
      write(isFile ? STDERR_FILENO : reopened.get(), line.data(), line.size());
}

}  // namespace
}  // namespace quorvane

os_log_t os_log_create(const char* subsystem, const char* category) {
  quorvane::fillStandardDescriptors();
  static const quorvane::NoDestructor<std::mutex> mutex;
  static const quorvane::NoDestructor<std::deque<os_log_s>> logs;
  const std::lock_guard lock(*mutex);
  return &logs->emplace_back(os_log_s{subsystem, category});
}

void quorvane_os_log(os_log_t log, os_log_type_t type, const char* format, ...) {
  using namespace quorvane;
  const int errnoOfCaller = errno;
  va_list arguments;
  va_start(arguments, format);
  std::string message = formatMessage(format, arguments);
  va_end(arguments);

  // Priorities of syslog(3). The default type becomes a notice, which is kept.
  constexpr std::string_view errorPriority = "3";
  constexpr std::string_view noticePriority = "5";
  std::string datagram;
  appendField(datagram, "MESSAGE", message);
  appendField(datagram, "PRIORITY", type == OS_LOG_TYPE_ERROR ? errorPriority : noticePriority);
  appendField(datagram, "SYSLOG_IDENTIFIER", program_invocation_short_name);
  appendField(datagram, "SUBSYSTEM", log->subsystem);
  appendField(datagram, "CATEGORY", log->category);
  // A new socket for each message finds a journal that has restarted or started late.
  if (!sendDatagram(systemPath("/run/systemd/journal/socket"), datagram)) {
    std::replace(message.begin(), message.end(), '\n', ' ');
    writeToStandardError(log->subsystem + " " + log->category + ": " + message + "\n");
  }
  errno = errnoOfCaller;
}
