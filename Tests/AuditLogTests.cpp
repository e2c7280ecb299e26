#include "QuorvaneFanHelper/AuditLog.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <ctime>

#include "QRVFanShared/FanControlXPC.h"
#include "Support/TemporaryRoot.h"

namespace quorvane {
namespace {

const std::string path = FanControlConstants::auditLogPath;
constexpr std::size_t stampLength = sizeof "2025-03-01T12:00:05Z" - 1;

class AuditLogTest : public testing::Test {
 protected:
  mode_t permissions() {
    struct stat status {};
    return stat(root.path(path).c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
  }

  TemporaryRoot root;
};

TEST_F(AuditLogTest, MakesFolderAndFileAndStampsEachLineWithTheTimeInUTC) {
  umask(077);
  setenv("TZ", "Asia/Kathmandu", 1);
  const std::time_t before = std::time(nullptr);
  audit("");
  audit("write F0Tg=2500 — \x01");
  EXPECT_EQ(permissions(), 0644U);
  const std::string log = root.read(path);
  std::tm utc{};
  EXPECT_EQ(strptime(log.c_str(), "%Y-%m-%dT%H:%M:%SZ  %n", &utc), log.c_str() + stampLength + 3);
  EXPECT_GE(timegm(&utc), before);
  EXPECT_LE(timegm(&utc), std::time(nullptr));
  EXPECT_EQ(log.substr(2 * stampLength + 3), "  write F0Tg=2500 — \x01\n");
}

TEST_F(AuditLogTest, AppendsToWhatIsThereAndMakesAnewWhatIsGone) {
  root.write(path, "no line feed");
  chmod(root.path(path).c_str(), 0600);
  audit("next");
  EXPECT_EQ(root.read(path).substr(0, 12), "no line feed");
  EXPECT_EQ(root.read(path).substr(12 + stampLength), "  next\n");
  EXPECT_EQ(permissions(), 0600U);
  std::filesystem::remove_all(root.path("/Library"));
  audit("two");
  EXPECT_EQ(root.read(path).substr(stampLength), "  two\n");
}

TEST_F(AuditLogTest, WhatCannotBeWrittenIsLostInSilence) {
  root.write(path, "");
  signal(SIGXFSZ, SIG_IGN);
  const rlimit small{stampLength, RLIM_INFINITY};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  audit("cut short by a full disk");
  EXPECT_EQ(root.read(path).size(), stampLength);
}

}  // namespace
}  // namespace quorvane
