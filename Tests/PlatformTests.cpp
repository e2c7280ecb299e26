// The Linux versions of small macOS interfaces: the model name and the log.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <os/log.h>
#include <sys/socket.h>
#include <sys/sysctl.h>

#include "Platform/Linux/Socket.h"
#include "Support/TemporaryRoot.h"

namespace quorvane {

using namespace std::string_literals;
const TemporaryRoot root;

// The process tests cover the source of the model name on most machines.
TEST(Platform, TheModelMayComeFromTheDeviceTree) {
  root.write("/proc/device-tree/model", "Apple MacBook Air (M2)\0"s);
  root.write("/sys/class/dmi/id/product_name", "\n");
  std::string text(50, '?');
  std::size_t size = text.size();
  sysctlbyname("hw.model", text.data(), &size, nullptr, 0);
  EXPECT_EQ(text.substr(0, text.find('?')), "Apple MacBook Air (M2)\0"s);
}

std::string received(int descriptor) {
  std::string text(100000, '\0');
  const ssize_t size = read(descriptor, text.data(), text.size());
  return text.substr(0, size < 0 ? 0 : static_cast<std::size_t>(size));
}

// A message that waits for room would block this process forever.
TEST(Platform, MessagesGoToTheJournalOrToStandardErrorAndNeverWait) {
  const auto address = socketAddress(root.prepare("/run/systemd/journal/socket")).value();
  const int journal = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0);
  ASSERT_EQ(bind(journal, address.get(), address.size), 0);
  const os_log_t log = os_log_create("com.quorvane.app", "FanHelper");
  const std::string most(1011, 'x');  // so that the limit truncates the next character
  os_log_error(log, "%{private}d%% of %%{x}\n%{public}s", 2, (most + "\u2014").c_str());
  EXPECT_EQ(received(journal), "MESSAGE\n\x01\x04\0\0\0\0\0\0"s + "2% of %{x}\n" + most +
                                   "\uFFFD\nPRIORITY=3\nSYSLOG_IDENTIFIER=PlatformTests\n"
                                   "SUBSYSTEM=com.quorvane.app\nCATEGORY=FanHelper\n");
  close(journal);

  int pipe[2];
  ASSERT_EQ(pipe2(pipe, O_NONBLOCK), 0);
  ASSERT_GT(write(pipe[1], std::string(100000, 'x').data(), 100000), 0);  // fills the pipe
  ASSERT_EQ(fcntl(pipe[1], F_SETFL, 0), 0);
  dup2(pipe[1], STDERR_FILENO);
  os_log(log, "dropped");
  EXPECT_EQ(received(pipe[0]).find("dropped"), std::string::npos);
  os_log(log, "no\njournal");
  EXPECT_EQ(received(pipe[0]), "com.quorvane.app FanHelper: no journal\n");
  close(STDERR_FILENO);
  os_log_create("com.quorvane.app", "FanHelperMain");
  EXPECT_GT(open("/dev/null", O_RDONLY), STDERR_FILENO) << "no log line may land in a file";
}

}  // namespace quorvane
