#include "QRVFanShared/FanControlXPC.h"

namespace quorvane {

std::string FanControlConstants::appCodeRequirement() {
  std::string clauses;
  for (const std::string_view bundleID : appBundleIDs) {
    if (!clauses.empty()) clauses += " or ";
    clauses.append("identifier \"").append(bundleID).append("\"");
  }
  return std::string("anchor apple generic and certificate leaf[subject.OU] = \"")
      .append(teamID)
      .append("\" and (")
      .append(clauses)
      .append(")");
}

}  // namespace quorvane
