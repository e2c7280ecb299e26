#include "QRVFanShared/FanControlXPC.h"

#include <gtest/gtest.h>

namespace quorvane {
namespace {

// The texts that an installed companion and its signature depend on, spelt out whole.
TEST(FanControlXPC, RequirementsAreTheAgreedTexts) {
  const std::string app =
      R"(anchor apple generic and certificate leaf[subject.OU] = "X4TQ8RW2ZN" and )"
      R"((identifier "com.quorvane.app" or identifier "com.quorvane.app-vendra"))";
  EXPECT_EQ(FanControlConstants::appCodeRequirement(), app);
  EXPECT_EQ(FanControlConstants::appCodeRequirement(), app);
  EXPECT_EQ(FanControlConstants::helperCodeRequirement,
            R"(identifier "com.quorvane.fanhelper" and anchor apple generic and )"
            R"(certificate leaf[subject.OU] = "X4TQ8RW2ZN")");
}

TEST(FanControlXPC, SelectorsAreTheAgreedOnes) {
  std::string selectors;
  for (const auto& operation : fanControlOperations) selectors.append(operation.selector) += ' ';
  EXPECT_EQ(
      selectors,
      "writeFanKey:value:isFloat:reply: restoreAutoWithReply: statusWithReply: pingWithReply: ");
}

}  // namespace
}  // namespace quorvane
