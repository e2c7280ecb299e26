#include "Platform/Linux/Drivers/HwmonSMC.h"

#include <errno.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <system_error>
#include <utility>

namespace quorvane::hwmon {
namespace {

using smc::CallResult;
using smc::Command;
using smc::Record;

// SMC results of this driver only.
constexpr std::uint8_t resultOther = 1;
constexpr std::uint8_t resultInvalid = 137;
constexpr std::uint8_t resultTimeout = 183;

/// Returns the result of an access to a file; `denied` if the access was not allowed.
CallResult withError(int error, std::uint8_t denied) {
  switch (error) {
    case 0:
      return {};
    case ENODEV:
      return smc::withStatus(kIOReturnNoDevice);
    case ENOENT:
      return smc::withResult(smc::resultKeyMissing);
    case EACCES:
    case EPERM:
    case EOPNOTSUPP:
      return smc::withResult(denied);
    case EINVAL:
      return smc::withResult(resultInvalid);
    case ETIMEDOUT:
      return smc::withResult(resultTimeout);
    default:
      return smc::withResult(resultOther);
  }
}

std::string fileOf(unsigned fan, std::string_view attribute) {
  return "fan" + std::to_string(fan + 1) + "_" + std::string(attribute);
}

enum class Kind : std::uint8_t { fanCount, speed, mode };

}  // namespace

struct HwmonSMC::Key {
  Kind kind = Kind::fanCount;
  unsigned fan = 0;
  /// The file that it is read from and written to.
  std::string file;
  smc::KeyDescription info;
};

struct HwmonSMC::Number {
  int error = 0;
  std::uint32_t value = 0;  // 0 after an error
};

struct HwmonSMC::Limits {
  int error = 0;
  std::uint32_t low = 0;
  std::uint32_t high = 0;
};

kern_return_t HwmonSMC::callStructMethod(std::uint32_t selector, const void* input,
                                         std::size_t inputSize, void* output,
                                         std::size_t* outputSize) {
  const auto request = smc::receive(selector, input, inputSize, output, outputSize);
  if (!request) return kIOReturnBadArgument;
  if (!bindDevice()) return kIOReturnNoDevice;
  return smc::send(serve(*request), output, outputSize);
}

/// A reloaded driver starts with its own flags, not with the SMC's modes: forget `handedBack`.
bool HwmonSMC::bindDevice() {
  if (device && device->isPresent()) return true;
  device = find();
  handedBack.reset();
  return device.has_value();
}

CallResult HwmonSMC::serve(const Record& request) {
  const std::optional<Key> key = keyOf(request.key);
  if (!key) return smc::withResult(smc::resultKeyMissing);
  if (request.command == Command::info) return smc::withInfo(key->info);
  if (const std::uint8_t refused = smc::refusal(request, key->info); refused != 0) {
    return smc::withResult(refused);
  }
  return request.command == Command::read ? read(*key) : write(*key, request.data);
}

unsigned HwmonSMC::fanCount() const {
  unsigned count = 0;
  while (count < fanCountMax && device->folder->has(fileOf(count, "input"))) ++count;
  return count;
}

std::optional<HwmonSMC::Key> HwmonSMC::keyOf(FourCC code) const {
  constexpr std::uint8_t readOnly = smc::attributeReadable;
  constexpr std::uint8_t writeOnly = smc::attributeWritable;
  if (code == fourCC("FNum")) return Key{Kind::fanCount, 0, {}, smc::byteKey(readOnly)};

  const std::uint32_t fan = (code >> 16 & 0xFF) - '0';  // below '0' it wraps, and is no fan
  if (code >> 24 != 'F' || fan >= fanCount()) return std::nullopt;
  const KernelDriver& driver = *device->driver;
  const auto key = [&](Kind kind, std::string_view attribute, const smc::KeyDescription& info) {
    Key found{kind, fan, fileOf(fan, attribute), info};
    return device->folder->has(found.file) ? std::optional(std::move(found)) : std::nullopt;
  };
  const smc::KeyDescription reading = smc::speedKey(driver.speedType, readOnly);
  switch (code & 0xFFFF) {
    case fourCC("Ac"):
      return key(Kind::speed, "input", reading);
    case fourCC("Mn"):
      return key(Kind::speed, "min", reading);
    case fourCC("Mx"):
      return key(Kind::speed, "max", reading);
    case fourCC("Tg"):
      return key(Kind::speed, driver.target, smc::speedKey(driver.speedType, readOnly | writeOnly));
    case fourCC("Md"):
      return driver.mode.empty() ? key(Kind::mode, driver.target, smc::byteKey(writeOnly))
                                 : key(Kind::mode, driver.mode, smc::byteKey(readOnly | writeOnly));
    default:
      return std::nullopt;
  }
}

CallResult HwmonSMC::read(const Key& key) const {
  if (key.kind == Kind::fanCount) return smc::withData({static_cast<std::uint8_t>(fanCount())});
  const Number found = number(key.file);
  if (found.error != 0) return withError(found.error, smc::resultNotReadable);
  if (key.kind == Kind::speed) return smc::withData(smc::encodeSpeed(key.info.type, found.value));
  if (found.value > 1) return smc::withResult(resultOther);
  return smc::withData({static_cast<std::uint8_t>(found.value)});
}

CallResult HwmonSMC::write(const Key& key, const smc::Data& data) {
  if (key.kind == Kind::mode) {
    return withError(writeMode(key.fan, data[0]), smc::resultNotWritable);
  }
  const std::optional<double> rpm = smc::decodeSpeed(key.info.type, data);
  return withError(rpm ? writeTarget(key.fan, *rpm) : EINVAL, smc::resultNotWritable);
}

HwmonSMC::Number HwmonSMC::number(const std::string& file) const {
  const Text content = device->folder->read(file);
  if (content.error != 0) return {content.error, 0};
  const char* const end = content.text.data() + content.text.size();
  std::uint32_t value = 0;
  const auto [rest, error] = std::from_chars(content.text.data(), end, value);
  if (error != std::errc() || rest != end) return {EBADMSG, 0};
  return {0, value};
}

HwmonSMC::Limits HwmonSMC::limits(unsigned fan) const {
  const Number low = number(fileOf(fan, "min"));
  if (low.error != 0) return {low.error, 0, 0};
  const Number high = number(fileOf(fan, "max"));
  if (high.error != 0) return {high.error, 0, 0};
  return {low.value <= high.value ? 0 : ERANGE, low.value, high.value};
}

int HwmonSMC::writeMode(unsigned fan, unsigned mode) {
  if (mode > 1) return EINVAL;
  const KernelDriver& driver = *device->driver;
  if (!driver.mode.empty()) {
    return device->folder->write(fileOf(fan, driver.mode), std::to_string(mode));
  }
  if (mode == 0) return handBack(fan);
  const Number current = number(fileOf(fan, driver.target));
  return current.error != 0 ? current.error : writeTarget(fan, current.value);
}

int HwmonSMC::writeTarget(unsigned fan, double rpm) {
  const Limits allowed = limits(fan);
  if (allowed.error != 0) return allowed.error;
  const KernelDriver& driver = *device->driver;
  const long target = std::lround(std::clamp<double>(rpm, allowed.low, allowed.high));
  // Without a mode file, 0 would hand the fan back, not stop it.
  if (driver.mode.empty() && target == 0) return EINVAL;
  const int error = device->folder->write(fileOf(fan, driver.target), std::to_string(target));
  // The SMC may have entered manual mode although its response was lost and the flag is unset.
  if (error != 0) handedBack.reset(fan);
  return error;
}

/// The driver leaves manual mode only if its own flag says manual. The flag starts as automatic,
/// whatever the SMC's mode is, so the first hand-back sets it by writing the present target.
int HwmonSMC::handBack(unsigned fan) {
  const std::string target = fileOf(fan, device->driver->target);
  const auto leave = [&] { return device->folder->write(target, "0"); };
  if (handedBack[fan]) return leave();

  const int entered = writeTarget(fan, std::max(number(target).value, 1U));  // 0 would not set it
  int left = leave();
  // The first write may have forced an automatic fan: one failure must not leave it forced.
  if (left != 0) left = leave();
  if (entered == 0 && left == 0) handedBack.set(fan);
  return entered != 0 ? entered : left;
}

}  // namespace quorvane::hwmon
