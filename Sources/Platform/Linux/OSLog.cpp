// os_log over the journal's native socket, or standard error where there is no journal. Nothing
// here waits for whoever reads the log: what holds up a thread could hold up a restore. Callable
// from any thread.
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

/// Far above any message of ours; keeps a line within PIPE_BUF, below which a pipe takes all of a
/// write or nothing.
constexpr std::size_t maxMessageBytes = 1024;

/// The rest of this file writes to descriptor 2. Were it closed, the next file that the process
/// opens would get that number, and then log lines for content; 0 and 1 have such users too.
void fillStandardDescriptors() {
  int descriptor = -1;
  do {
    descriptor = open("/dev/null", O_RDWR | O_CLOEXEC | O_NOCTTY);
  } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
  const Descriptor superfluous(descriptor);
}

/// "%{public}s" is "%s" to printf. "%%" ahead of a brace is a percent sign and no annotation.
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

/// The message whole, or its beginning. A character that the bound cuts becomes U+FFFD.
std::string formatMessage(const char* format, va_list arguments) {
  std::array<char, maxMessageBytes + 1> buffer{};
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it is the caller's, and initialised.
  vsnprintf(buffer.data(), buffer.size(), withoutAnnotations(format).c_str(), arguments);
  return replacingInvalidUTF8(buffer.data());
}

/// Serialises one field as systemd's "Native Journal Protocol" has it (JOURNAL_NATIVE_PROTOCOL):
/// NAME=value, or for a value with a line feed the name on a line of its own, then the value's
/// length, 64 bits little-endian, and the value.
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

/// The line, or nothing when it cannot be taken at once. poll(2) would not do: it calls a terminal
/// writable that has room for one byte, and two writers can find the same room in a pipe. Nor may
/// descriptor 2 itself be made non-blocking, for others share its open file. So a pipe or a
/// terminal is opened once more, without blocking. A pipe without a reader is an error and nothing
/// worse, for the dispatch layer has SIGPIPE ignored in the whole process.
void writeToStandardError(std::string_view line) {
  struct stat status {};
  if (fstat(STDERR_FILENO, &status) != 0) return;
  if (S_ISSOCK(status.st_mode)) {
    send(STDERR_FILENO, line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    return;
  }
  // A file is written through its shared offset. No reader can hold it up.
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

  // Priorities of syslog(3): an error, and for the default type a notice, which is kept.
  constexpr std::string_view errorPriority = "3";
  constexpr std::string_view noticePriority = "5";
  std::string datagram;
  appendField(datagram, "MESSAGE", message);
  appendField(datagram, "PRIORITY", type == OS_LOG_TYPE_ERROR ? errorPriority : noticePriority);
  appendField(datagram, "SYSLOG_IDENTIFIER", program_invocation_short_name);
  appendField(datagram, "SUBSYSTEM", log->subsystem);
  appendField(datagram, "CATEGORY", log->category);
  // Sent from a new socket each time, so that a journal that was restarted, or started late, is
  // found.
  if (!sendDatagram(systemPath("/run/systemd/journal/socket"), datagram)) {
    std::replace(message.begin(), message.end(), '\n', ' ');
    writeToStandardError(log->subsystem + " " + log->category + ": " + message + "\n");
  }
  errno = errnoOfCaller;
}
