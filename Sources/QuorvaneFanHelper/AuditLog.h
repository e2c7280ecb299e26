// The record of what the helper did to the fans: a plain-text file that is only appended to.
// Written from the service's queue only, so that its lines stand in the order of events.
#pragma once

#include <string_view>

namespace quorvane {

/// Appends one line, a UTC timestamp and the message as it is, to the file at
/// FanControlConstants::auditLogPath; the line is in the file on return. Folder and file are made
/// when missing. A line that cannot be written is lost in silence: a fan comes before its record.
void audit(std::string_view message);

}  // namespace quorvane
