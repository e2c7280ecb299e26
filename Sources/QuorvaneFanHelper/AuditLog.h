// The record of what the helper did to the fans: a plain-text file to which it only appends. Used
// from the service's queue only, so the lines are in the order of events.
#pragma once

#include <string_view>

namespace quorvane {

/// Appends one line, a UTC timestamp and the unchanged message, to the file at
/// FanControlConstants::auditLogPath. The line is in the file on return. Creates a missing folder
/// or file. A line that cannot be written is lost silently: a fan comes before its record.
void audit(std::string_view message);

}  // namespace quorvane
