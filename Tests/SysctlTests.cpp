#include <gtest/gtest.h>
#include <sys/sysctl.h>

#include <cerrno>
#include <string>

#include "Support/TemporaryRoot.h"

namespace quorvane {
namespace {

using namespace std::string_literals;

const TemporaryRoot root;

/// What the helper does with the value: asks for the size, then for the text.
std::string model() {
  std::size_t size = 0;
  if (sysctlbyname("hw.model", nullptr, &size, nullptr, 0) != 0) return "none";
  std::string text(size, '?');
  EXPECT_EQ(sysctlbyname("hw.model", text.data(), &size, nullptr, 0), 0);
  EXPECT_EQ(size, text.size());
  return text;
}

TEST(Sysctl, TheModelIsWhatTheFirmwareSaysWithOneNUL) {
  const char* const product = "/sys/class/dmi/id/product_name";
  const char* const deviceTree = "/proc/device-tree/model";

  EXPECT_EQ(model(), "none");
  EXPECT_EQ(errno, ENOENT);
  root.write(deviceTree, "Apple MacBook Air (M2)\0"s);
  EXPECT_EQ(model(), "Apple MacBook Air (M2)\0"s);
  root.write(product, "\n");
  EXPECT_EQ(model(), "Apple MacBook Air (M2)\0"s) << "an empty product name is none";
  root.write(product, "Mac14,2\n");
  EXPECT_EQ(model(), "Mac14,2\0"s);
  root.write(product, std::string(5000, 'x'));
  EXPECT_EQ(model(), std::string(4096, 'x') + '\0') << "one page and no more";
}

TEST(Sysctl, ErrorsAreTheKernels) {
  root.write("/sys/class/dmi/id/product_name", "Mac14,2\n");
  std::string text = "????";
  std::size_t size = text.size();
  EXPECT_EQ(sysctlbyname("hw.model", text.data(), &size, nullptr, 0), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(text, "Mac1") << "what fits";
  EXPECT_EQ(size, 4U);

  EXPECT_EQ(sysctlbyname("hw.memsize", nullptr, &size, nullptr, 0), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(sysctlbyname("hw.model", nullptr, &size, text.data(), text.size()), -1);
  EXPECT_EQ(errno, EPERM);
}

}  // namespace
}  // namespace quorvane
