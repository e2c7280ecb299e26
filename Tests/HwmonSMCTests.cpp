// The driver for the kernel's fan files, on plain files. A layer above them adds the behaviour of
// the kernel that plain files do not have.
#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>

#include "Platform/Linux/Drivers/HwmonSMC.h"
#include "Support/HwmonTree.h"

namespace quorvane::hwmon {

using enum smc::Command;
constexpr auto intel = smc::typeFPE2, apple = smc::typeFLT, byte = smc::typeUI8;

/// Plain files, with write errors, the state of the kernel's driver and that of the SMC.
struct KernelFolder : Folder {
  explicit KernelFolder(std::unique_ptr<Folder> plain) : files(std::move(plain)) {}
  bool has(const std::string& file) const override { return files->has(file); }
  Text read(const std::string& file) const override { return files->read(file); }
  int write(const std::string& file, std::string_view text) override {
    const std::string access = file + "=" + std::string(text);
    written += access + " ";
    if (const int error = std::exchange(errors[access], 0); error != 0) return error;
    const bool isManual = text != "0";
    if (driverFlag != isManual) smcIsManual = isManual;
    driverFlag = isManual;
    return files->write(file, text);
  }
  const std::unique_ptr<Folder> files;
  inline static std::map<std::string, int> errors;  // by file and text, for one write
  inline static std::string written;
  inline static bool driverFlag = false, smcIsManual = false;  // of Apple Silicon's fan 1
};

struct HwmonSMCTest : testing::Test {
  HwmonSMCTest() { unplug(); }
  static void unplug() { std::filesystem::remove_all(root.path("/sys")); }
  /// Calls the driver. Returns the kernel return code if it is an error, else the SMC's result.
  int ask(smc::Command command, const char* key, FourCC type, double value = 0) {
    const auto low = static_cast<std::uint8_t>(type == byte ? value : 0);
    smc::Record record{.key = fourCC(key),
                       .size = type == byte ? 1 : smc::speedKey(type, 0).size,
                       .type = type,
                       .command = command,
                       .data = type == byte ? smc::Data{low} : smc::encodeSpeed(type, value)};
    std::size_t size = sizeof record;
    const int status = client.callStructMethod(2, &record, sizeof record, &record, &size);
    return status != KERN_SUCCESS ? status : record.result;
  }
  /// Sets the mode of fan 0. Returns the result, the writes to files, and the SMC's mode then.
  std::string setMode(int mode) {
    KernelFolder::written = " ";
    const std::string result = std::to_string(ask(write, "F0Md", byte, mode));
    const char* smcMode = KernelFolder::smcIsManual ? "manual" : "automatic";
    return result + KernelFolder::written + smcMode;
  }
  inline static const TemporaryRoot root;
  HwmonSMC client{[] {
    std::optional<Device> device = findDevice();
    if (device) device->folder = std::make_unique<KernelFolder>(std::move(device->folder));
    return device;
  }};
};

TEST_F(HwmonSMCTest, WritesOfTheOneKnownDeviceKeepWithinLimitsAndFailWithResults) {
  plantHwmon(root, "applesmc", true, "0");
  plantHwmon(root, "macsmc_hwmon", false, "2");
  plantHwmon(root, "applesmc2", false, "3");
  EXPECT_EQ(ask(read, "FNum", byte), kIOReturnNoDevice);
  const std::string folder = plantHwmon(root, "applesmc", false);
  const std::tuple<const char*, const char*, double, std::string> targets[] = {
      // min, max, target; then the result and the file's text
      {"1200\n", "5900\n", 2500.25, "0 2500"},
      {"0", "5900", 0, "0 0"},
      {"900", "5900", 0, "0 900"},
      {"1.5", "5900", 2500, "1 900"},
      {"5900", "1200", 2500, "1 900"}};
  for (const auto& [min, max, rpm, expected] : targets) {
    root.write(folder + "fan2_min", min);
    root.write(folder + "fan2_max", max);
    const std::string result = std::to_string(ask(write, "F1Tg", intel, rpm)) + " ";
    EXPECT_EQ(result + root.read(folder + "fan2_output"), expected) << min << " to " << max;
  }
  EXPECT_EQ(ask(write, "F0Md", byte, 2), 137);
  EXPECT_EQ(root.read(folder + "fan1_manual"), "0\n");
  root.write(folder + "fan1_manual", "2");
  EXPECT_EQ(ask(read, "F0Md", byte), 1) << "no mode";
  KernelFolder::errors = {{"fan1_output=2500", EACCES}};
  EXPECT_EQ(ask(write, "F0Tg", intel, 2500), 134);
}

TEST_F(HwmonSMCTest, AppleSiliconFansAreReallyHandedBack) {
  const std::string folder = plantHwmon(root, "macsmc_hwmon", true, "9");
  plantHwmon(root, "applesmc", false, "10");
  // A helper forced the fan and crashed, then the kernel reloaded its driver.
  KernelFolder::smcIsManual = true;
  EXPECT_EQ(setMode(0), "0 fan1_target=1400 fan1_target=0 automatic");
  EXPECT_EQ(setMode(0), "0 fan1_target=0 automatic");
  EXPECT_EQ(setMode(1), "0 fan1_target=1200 manual");
  EXPECT_EQ(ask(read, "F0Md", byte), 133);
  unplug();
  EXPECT_EQ(setMode(0), std::to_string(kIOReturnNoDevice) + " manual");
  plantHwmon(root, "macsmc_hwmon", true, "9");
  KernelFolder::driverFlag = false;
  root.write(folder + "fan1_max", "");
  EXPECT_EQ(setMode(0), "1 fan1_target=0 manual");
  root.write(folder + "fan1_max", "5900");
  KernelFolder::errors = {{"fan1_target=0", EIO}};
  EXPECT_EQ(setMode(0), "0 fan1_target=1200 fan1_target=0 fan1_target=0 automatic");
  EXPECT_EQ(ask(write, "F0Tg", apple, 1e30), 0);
  EXPECT_EQ(ask(write, "F0Tg", apple, -1e30), 0);
  EXPECT_EQ(ask(write, "F0Tg", apple, NAN), 137);
  EXPECT_TRUE(KernelFolder::written.ends_with(" fan1_target=5900 fan1_target=1200 "));
  root.write(folder + "fan1_min", "0");
  EXPECT_EQ(ask(write, "F0Tg", apple, 0.25), 137) << "would hand back, not stop";
  EXPECT_EQ(setMode(0), "0 fan1_target=0 automatic");
  KernelFolder::errors = {{"fan1_target=2500", ETIMEDOUT}};
  EXPECT_EQ(ask(write, "F0Tg", apple, 2500), 183);
  KernelFolder::smcIsManual = true;  // only the SMC's reply was lost
  EXPECT_EQ(setMode(0), "0 fan1_target=1 fan1_target=0 automatic");
}

}  // namespace quorvane::hwmon
