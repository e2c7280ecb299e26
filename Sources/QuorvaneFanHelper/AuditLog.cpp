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

/// RFC 3339 in UTC with whole seconds: "2025-03-01T12:00:05Z".
std::string timestamp() {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  char text[sizeof "2025-03-01T12:00:05Z"] = {};
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

/// False when there is no file that can be opened; a line that could not be written to an open one
/// is lost.
bool appendToExisting(const std::string& path, std::string_view line) {
  const Descriptor file = openFile(path, O_WRONLY | O_APPEND);
  if (file) writeAll(file.get(), line);
  return static_cast<bool>(file);
}

void writeNew(const std::string& path, std::string_view line) {
  std::error_code ignored;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
  // Not truncated: what could not be opened a moment ago may be there by now. Not exclusive: a link
  // that leads nowhere yet gets its file.
  const Descriptor file = openFile(path, O_WRONLY | O_CREAT | O_APPEND, filePermissions);
  if (file) writeAll(file.get(), line);
  // Whether or not that worked; the mode given above is subject to the umask.
  ::chmod(path.c_str(), filePermissions);
}

}  // namespace

void audit(std::string_view message) {
  const std::string line = timestamp().append("  ").append(message).append("\n");
  const std::string path = systemPath(FanControlConstants::auditLogPath);
  // A file that opens has its folder.
  if (!appendToExisting(path, line)) writeNew(path, line);
}

}  // namespace quorvane
