#include "QuorvaneFanHelper/AuditLog.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <ctime>
#include <filesystem>
#include <string>
#include <system_error>

#include "Platform/File.h"
#include "Platform/SystemPath.h"
#include "QRVFanShared/FanControlXPC.h"

namespace quorvane {
namespace {

constexpr mode_t filePermissions = 0644;

/// Returns the time as in RFC 3339, in UTC with whole seconds: "2025-03-01T12:00:05Z". Formats it
/// once a second.
std::string_view timestamp() {
  static std::time_t formatted = -1;
  static char text[sizeof "2025-03-01T12:00:05Z"] = {};
  const std::time_t now = std::time(nullptr);
  if (now != formatted) {
    std::tm utc{};
    gmtime_r(&now, &utc);
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    formatted = now;
  }
  return text;
}

/// Returns false if the file cannot be opened. A line that cannot be written to an open file is
/// lost.
bool appendToExisting(const std::string& path, std::string_view line) {
  const Descriptor file = openFile(path, O_WRONLY | O_APPEND);
  if (file) writeAll(file.get(), line);
  return static_cast<bool>(file);
}

void writeNew(const std::string& path, std::string_view line) {
  std::error_code ignored;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
  // No O_TRUNC: the file may exist by now. No O_EXCL: a dangling link gets its target.
  const Descriptor file = openFile(path, O_WRONLY | O_CREAT | O_APPEND, filePermissions);
  if (file) writeAll(file.get(), line);
  // Also after a failed open. The umask limits the mode given to open().
  ::chmod(path.c_str(), filePermissions);
}

}  // namespace

void audit(std::string_view message) {
  constexpr std::string_view separator = "  ", lineFeed = "\n";
  const std::string_view time = timestamp();
  std::string line;
  line.reserve(time.size() + separator.size() + message.size() + lineFeed.size());
  line.append(time).append(separator).append(message).append(lineFeed);
  const std::string path = systemPath(FanControlConstants::auditLogPath);
  // If the file opens, its folder exists.
  if (!appendToExisting(path, line)) writeNew(path, line);
}

}  // namespace quorvane
