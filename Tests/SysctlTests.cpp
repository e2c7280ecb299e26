#include <gtest/gtest.h>
#include <sys/sysctl.h>

#include "Support/TemporaryRoot.h"

namespace quorvane {

/// What a buffer of this size is filled with.
std::string model(std::size_t size = 5000) {
  std::string text(6000, '?');
  sysctlbyname("hw.model", text.data(), &size, nullptr, 0);
  return text.substr(0, text.find('?'));
}

TEST(Sysctl, TheModelIsWhatTheFirmwareSaysWithOneNUL) {
  using namespace std::string_literals;
  const TemporaryRoot root;
  EXPECT_EQ(model(), "");
  root.write("/proc/device-tree/model", "Apple MacBook Air (M2)\0"s);
  root.write("/sys/class/dmi/id/product_name", "\n");
  EXPECT_EQ(model(), "Apple MacBook Air (M2)\0"s);
  root.write("/sys/class/dmi/id/product_name", "Mac14,2\n");
  EXPECT_EQ(model(), "Mac14,2\0"s);
  EXPECT_EQ(model(4), "Mac1");
}

}  // namespace quorvane
