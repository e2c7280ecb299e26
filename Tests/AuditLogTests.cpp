#include "QuorvaneFanHelper/AuditLog.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <ctime>
#include <regex>

#include "QRVFanShared/FanControlXPC.h"
#include "Support/TemporaryRoot.h"

namespace quorvane {
namespace {

constexpr char logPath[] = "/Library/Application Support/Quorvane/fan-audit.log";
constexpr std::size_t stampLength = 20;

class AuditLogTest : public testing::Test {
 protected:
  [[nodiscard]] std::string contents() const { return root.read(logPath); }
  [[nodiscard]] mode_t permissions() const {
    struct stat status {};
    return stat(root.path(logPath).c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
  }

  TemporaryRoot root;
};

TEST_F(AuditLogTest, MakesFolderAndFileAndAppendsWholeLines) {
  umask(077);
  audit("helper started");
  EXPECT_EQ(permissions(), 0644U);
  audit("");
  audit("write F0Tg=2500 — \x01");
  const std::string stamp = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)";
  EXPECT_TRUE(
      std::regex_match(contents(), std::regex(stamp + "  helper started\n" + stamp + "  \n" +
                                              stamp + "  write F0Tg=2500 — \x01\n")))
      << contents();
}

TEST_F(AuditLogTest, StampIsTheTimeInUTC) {
  setenv("TZ", "Asia/Kathmandu", 1);
  tzset();
  const std::time_t before = std::time(nullptr);
  audit("now");
  const std::time_t after = std::time(nullptr);
  std::tm utc{};
  strptime(contents().substr(0, stampLength).c_str(), "%Y-%m-%dT%H:%M:%SZ", &utc);
  EXPECT_GE(timegm(&utc), before);
  EXPECT_LE(timegm(&utc), after);
}

TEST_F(AuditLogTest, ExistingFileKeepsContentsAndPermissions) {
  root.write(logPath, "no line feed");
  chmod(root.path(logPath).c_str(), 0600);
  audit("next");
  EXPECT_EQ(contents().substr(0, 12), "no line feed");
  EXPECT_EQ(contents().substr(12 + stampLength), "  next\n");
  EXPECT_EQ(permissions(), 0600U);
}

TEST_F(AuditLogTest, FileDeletedMeanwhileIsMadeAgain) {
  audit("one");
  std::filesystem::remove_all(root.path("/Library"));
  audit("two");
  EXPECT_EQ(contents().substr(stampLength), "  two\n");
}

// A fifo in the file's place without a reader, and one with a reader that never reads, must not
// hold anything up.
TEST_F(AuditLogTest, WhatCannotBeWrittenIsLostInSilence) {
  root.write("/Library", "a file where a folder should be");
  audit("lost");
  std::filesystem::remove(root.path("/Library"));

  std::filesystem::create_directories(root.path(logPath));
  audit("lost");
  std::filesystem::remove(root.path(logPath));

  ASSERT_EQ(mkfifo(root.path(logPath).c_str(), 0600), 0);
  audit("lost");
  std::filesystem::remove(root.path(logPath));

  signal(SIGXFSZ, SIG_IGN);
  const rlimit small{stampLength, RLIM_INFINITY};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  audit("cut short by a full disk");
  EXPECT_EQ(contents().size(), stampLength);
}

}  // namespace
}  // namespace quorvane
