#include "QuorvaneFanHelper/AuditLog.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <ctime>

#include "Platform/SystemPath.h"
#include "QRVFanShared/FanControlXPC.h"
#include "Support/TemporaryRoot.h"

namespace quorvane {

const TemporaryRoot root;

std::string systemPath(std::string_view path) {
  return root.path(std::string(path));
}

TEST(AuditLog, AppendsLinesWithTheTimeInUTC) {
  const std::string path = FanControlConstants::auditLogPath, log = root.path(path);
  constexpr std::size_t stampLength = sizeof "2025-03-01T12:00:05Z" - 1;
  umask(077);
  setenv("TZ", "Asia/Kathmandu", 1);
  const std::time_t before = std::time(nullptr);
  audit("");
  using std::filesystem::perms;
  EXPECT_EQ(std::filesystem::status(log).permissions(), perms{0644});
  std::tm utc{};
  const std::string line = root.read(path);
  EXPECT_EQ(strptime(line.c_str(), "%Y-%m-%dT%H:%M:%SZ  %n", &utc), line.c_str() + line.size());
  EXPECT_GE(timegm(&utc), before);
  EXPECT_LE(timegm(&utc), std::time(nullptr));

  root.write(path, "no line feed");
  chmod(log.c_str(), 0600);
  audit("next — \x01");
  EXPECT_EQ(root.read(path).erase(12, stampLength), "no line feed  next — \x01\n");
  EXPECT_EQ(std::filesystem::status(log).permissions(), perms{0600}) << "as it was found";

  std::filesystem::rename(log, log + ".1");
  std::filesystem::create_symlink("elsewhere", log);
  audit("through a link that leads nowhere");
  EXPECT_TRUE(root.read(path).ends_with("nowhere\n"));
}

TEST(AuditLog, LosesOnlyTheLineThatItCannotWrite) {
  const std::string path = FanControlConstants::auditLogPath;
  root.write("/Library", "a file where the folder should be");
  audit("lost");
  std::filesystem::remove(root.path("/Library"));
  mkfifo(root.prepare(path).c_str(), 0600);
  audit("lost, and nobody waits for a reader");
  std::filesystem::remove(root.path(path));
  audit("kept");
  EXPECT_TRUE(root.read(path).ends_with("Z  kept\n"));
}

}  // namespace quorvane
