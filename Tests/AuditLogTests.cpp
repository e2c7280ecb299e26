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
  umask(077);
  setenv("TZ", "Asia/Kathmandu", 1);
  audit("next — \x01");
  using std::filesystem::perms;
  EXPECT_EQ(std::filesystem::status(log).permissions(), perms{0644});
  std::tm utc{};
  const std::string line = root.read(path);
  ASSERT_NE(strptime(line.c_str(), "%Y-%m-%dT%H:%M:%SZ  next — \x01\n", &utc), nullptr) << line;
  EXPECT_NEAR(static_cast<double>(timegm(&utc) - std::time(nullptr)), 0, 5);

  root.write(path, "no line feed");
  chmod(log.c_str(), 0600);
  audit("more");
  EXPECT_TRUE(root.read(path).starts_with("no line feed2"));
  EXPECT_TRUE(root.read(path).ends_with("Z  more\n"));
  EXPECT_EQ(std::filesystem::status(log).permissions(), perms{0600}) << "as it was found";
}

TEST(AuditLog, LosesOnlyTheLineThatItCannotWrite) {
  const std::string path = FanControlConstants::auditLogPath;
  root.write("/Library", "a file where the folder should be");
  audit("lost");
  std::filesystem::remove(root.path("/Library"));
  mkfifo(root.prepare(path).c_str(), 0600);
  audit("lost, and nobody waits for a reader");
  std::filesystem::remove(root.path(path));
  std::filesystem::create_symlink("/dev/full", root.path(path));
  audit("lost on a full disk");
  std::filesystem::remove(root.path(path));
  audit("kept");
  EXPECT_TRUE(root.read(path).ends_with("Z  kept\n"));
}

}  // namespace quorvane
