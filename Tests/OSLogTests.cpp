#include <fcntl.h>
#include <gtest/gtest.h>
#include <os/log.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <string>

#include "Support/TemporaryRoot.h"

namespace quorvane {
namespace {

using namespace std::string_literals;

const TemporaryRoot root;

std::string received(int descriptor) {
  std::array<char, 8192> buffer{};
  const ssize_t size = read(descriptor, buffer.data(), buffer.size());
  return size < 0 ? "nothing" : std::string(buffer.data(), static_cast<std::size_t>(size));
}

/// Logs with `descriptor` in the place of standard error.
template <class... Arguments>
void logTo(int descriptor, const char* format, Arguments... arguments) {
  const os_log_t log = os_log_create("com.quorvane.app", "FanHelper");
  const int saved = dup(STDERR_FILENO);
  dup2(descriptor, STDERR_FILENO);
  os_log(log, format, arguments...);
  dup2(saved, STDERR_FILENO);
  close(saved);
}

TEST(OSLog, AMessageIsOneEntryOfTheJournal) {
  const std::string path = root.prepare("/run/systemd/journal/socket");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const int journal = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  ASSERT_EQ(bind(journal, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  const os_log_t log = os_log_create("com.quorvane.app", "FanHelper");
  const std::string tail = "SYSLOG_IDENTIFIER="s + program_invocation_short_name +
                           "\nSUBSYSTEM=com.quorvane.app\nCATEGORY=FanHelper\n";
  const std::string longText(1022, 'x');

  os_log(log, "listening on %{public}s, %{private}d%% of %%{x}", "name", 7);
  EXPECT_EQ(received(journal), "MESSAGE=listening on name, 7% of %{x}\nPRIORITY=5\n" + tail);
  os_log_error(log, "SMC open failed: %{public}s", "notOpen");
  EXPECT_EQ(received(journal), "MESSAGE=SMC open failed: notOpen\nPRIORITY=3\n" + tail);
  os_log(log, "%{public}s", "two\nlines");
  EXPECT_EQ(received(journal), "MESSAGE\n\x9\0\0\0\0\0\0\0two\nlines\nPRIORITY=5\n"s + tail);
  os_log(log, "%{public}s", (longText + "\u2014 and more").c_str());
  EXPECT_EQ(received(journal), "MESSAGE=" + longText + "\uFFFD\nPRIORITY=5\n" + tail);
  close(journal);
  unlink(path.c_str());
}

TEST(OSLog, WithoutAJournalALineGoesToStandardErrorOrNowhere) {
  const std::string line = "com.quorvane.app FanHelper: no journal\n";
  std::array<int, 2> pipe{};
  std::array<int, 2> sockets{};
  ASSERT_EQ(pipe2(pipe.data(), O_CLOEXEC | O_NONBLOCK), 0);
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets.data()), 0);
  const int file = open(root.prepare("/file").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);

  // Full to the last byte, and blocking: were a message to wait for room, so would this test.
  while (write(pipe[1], "xxxxxxxx", 8) > 0) {
  }
  ASSERT_EQ(fcntl(pipe[1], F_SETFL, 0), 0);
  logTo(pipe[1], "dropped");
  for (std::string content; content != "nothing"; content = received(pipe[0])) {
    EXPECT_EQ(content.find("dropped"), std::string::npos);
  }
  logTo(pipe[1], "no\njournal");
  EXPECT_EQ(received(pipe[0]), line);
  logTo(sockets[1], "no %{public}s", "journal");
  EXPECT_EQ(received(sockets[0]), line);
  ASSERT_EQ(write(file, "first\n", 6), 6);
  logTo(file, "no journal");
  lseek(file, 0, SEEK_SET);
  EXPECT_EQ(received(file), "first\n" + line);

  // SIGPIPE would end this process.
  signal(SIGPIPE, SIG_DFL);
  close(pipe[0]);
  close(sockets[0]);
  logTo(pipe[1], "no reader");
  logTo(sockets[1], "no reader");
  for (const int descriptor : {pipe[1], sockets[1], file}) close(descriptor);
}

TEST(OSLog, AClosedStandardErrorIsNotLeftToTheNextFile) {
  const int saved = dup(STDERR_FILENO);
  close(STDERR_FILENO);
  os_log_create("com.quorvane.app", "FanHelperMain");
  const int next = open("/dev/null", O_RDONLY | O_CLOEXEC);
  dup2(saved, STDERR_FILENO);
  EXPECT_GT(next, STDERR_FILENO);
  for (const int descriptor : {saved, next}) close(descriptor);
}

}  // namespace
}  // namespace quorvane
