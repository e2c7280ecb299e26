#include "QuorvaneFanHelper/HelperSMC.h"

#include <mach/mach.h>

#include <algorithm>
#include <cstring>

namespace quorvane {
namespace {

constexpr char driverClass[] = "AppleSMC";
constexpr char keysEndpoint[] = "AppleSMCKeysEndpoint";
constexpr std::uint32_t structMethod = 2;

// The driver's parameter record. Fields of more than one byte are little-endian. Fields that a
// request does not set are zero.
constexpr std::size_t keyOffset = 0;
constexpr std::size_t dataSizeOffset = 28;
constexpr std::size_t dataTypeOffset = 32;
constexpr std::size_t attributesOffset = 36;
constexpr std::size_t resultOffset = 40;
constexpr std::size_t commandOffset = 42;
constexpr std::size_t dataOffset = 48;
constexpr std::size_t dataCapacity = 32;

constexpr std::uint8_t readCommand = 5;
constexpr std::uint8_t writeCommand = 6;
constexpr std::uint8_t keyInfoCommand = 9;

std::uint32_t load(std::span<const std::uint8_t> record, std::size_t offset) {
  std::uint32_t value = 0;
  for (std::size_t i = 4; i-- > 0;) value = value << 8 | record[offset + i];
  return value;
}

bool isKeysEndpoint(io_service_t service) {
  io_name_t name = {};
  if (IORegistryEntryGetName(service, name) != KERN_SUCCESS) return false;
  // Comparing bytes suffices: a text that needs decoding never equals this name.
  return std::strncmp(name, keysEndpoint, sizeof name) == 0;
}

/// Returns the endpoint's service, which the caller releases, or 0.
io_service_t findKeysEndpoint(io_iterator_t services) {
  while (const io_service_t service = IOIteratorNext(services)) {
    if (isKeysEndpoint(service)) return service;
    IOObjectRelease(service);
  }
  return 0;
}

}  // namespace

std::optional<io_connect_t> HelperSMC::open() {
  const CFMutableDictionaryRef matching = IOServiceMatching(driverClass);
  if (matching == nullptr) return std::nullopt;
  io_iterator_t services = 0;
  if (IOServiceGetMatchingServices(kIOMainPortDefault, matching, &services) != KERN_SUCCESS) {
    return std::nullopt;
  }
  std::optional<io_connect_t> opened;
  if (const io_service_t endpoint = findKeysEndpoint(services)) {
    io_connect_t handle = 0;
    if (IOServiceOpen(endpoint, mach_task_self(), 0, &handle) == KERN_SUCCESS) opened = handle;
    IOObjectRelease(endpoint);
  }
  IOObjectRelease(services);
  return opened;
}

void HelperSMC::connect() {
  const std::optional<io_connect_t> opened = open();
  if (!opened) throw SMCError::notOpen();
  connection = *opened;
  isOpen = true;
}

void HelperSMC::close() {
  if (!isOpen) return;
  IOServiceClose(connection);
  isOpen = false;
}

HelperSMC::Record HelperSMC::makeRecord(FourCC code, std::uint8_t command) {
  Record record{};
  store(record, code, keyOffset);
  record[commandOffset] = command;
  return record;
}

HelperSMC::Record HelperSMC::makeRecord(FourCC code, const KeyInfo& info, std::uint8_t command) {
  Record record = makeRecord(code, command);
  store(record, info.dataSize, dataSizeOffset);
  store(record, info.dataType, dataTypeOffset);
  record[attributesOffset] = info.attributes;
  return record;
}

void HelperSMC::store(Record& record, std::uint32_t value, std::size_t offset) {
  for (std::size_t i = 0; i < sizeof value; ++i) {
    record[offset + i] = static_cast<std::uint8_t>(value >> (8 * i));
  }
}

kern_return_t HelperSMC::submit(const Record& request, Record& reply,
                                std::size_t& replySize) const {
  reply = {};
  replySize = reply.size();
  return IOConnectCallStructMethod(connection, structMethod, request.data(), request.size(),
                                   reply.data(), &replySize);
}

std::optional<HelperSMC::Record> HelperSMC::call(const Record& request) const {
  constexpr std::size_t smallestReply = dataOffset;
  Record reply{};
  std::size_t replySize = 0;
  if (submit(request, reply, replySize) != KERN_SUCCESS) return std::nullopt;
  if (replySize < smallestReply || reply[resultOffset] != 0) return std::nullopt;
  return reply;
}

std::optional<KeyInfo> HelperSMC::keyInfo(FourCC code) {
  const auto known = keyInfoCache.find(code);
  if (known != keyInfoCache.end()) return known->second;
  const std::optional<Record> reply = call(makeRecord(code, keyInfoCommand));
  if (!reply) return std::nullopt;
  const KeyInfo info{load(*reply, dataSizeOffset), load(*reply, dataTypeOffset),
                     (*reply)[attributesOffset]};
  keyInfoCache.emplace(code, info);
  return info;
}

std::optional<std::vector<std::uint8_t>> HelperSMC::readRaw(std::string_view key) {
  if (!isOpen) return std::nullopt;
  const FourCC code = keyCode(key);
  const std::optional<KeyInfo> info = keyInfo(code);
  if (!info) return std::nullopt;
  const std::optional<Record> reply = call(makeRecord(code, *info, readCommand));
  if (!reply) return std::nullopt;
  const std::size_t count = std::min<std::size_t>(info->dataSize, dataCapacity);
  const auto first = reply->begin() + dataOffset;
  return std::vector<std::uint8_t>(first, first + static_cast<std::ptrdiff_t>(count));
}

// Less strict than a read: a write that the driver and the SMC accept has taken effect, even if the
// reply is short.
void HelperSMC::write(FourCC code, const KeyInfo& info,
                      std::span<const std::uint8_t> payload) const {
  if (!isOpen) throw SMCError::notOpen();
  Record request = makeRecord(code, info, writeCommand);
  const std::size_t count = std::min(payload.size(), dataCapacity);
  std::copy_n(payload.begin(), count, request.begin() + dataOffset);
  Record reply{};
  std::size_t replySize = 0;
  const kern_return_t result = submit(request, reply, replySize);
  if (result != KERN_SUCCESS) throw SMCError::callFailed(result);
  if (reply[resultOffset] != 0) throw SMCError::resultError(reply[resultOffset]);
}

std::optional<std::uint8_t> HelperSMC::readByte(std::string_view key) {
  const std::optional<std::vector<std::uint8_t>> bytes = readRaw(key);
  if (!bytes || bytes->empty()) return std::nullopt;
  return bytes->front();
}

void HelperSMC::writeByte(std::string_view key, std::uint8_t value) {
  const FourCC code = keyCode(key);
  const std::optional<KeyInfo> info = keyInfo(code);
  // The value is the last byte. Beyond the record's data area it would not be sent.
  if (!info || info->dataSize == 0 || info->dataSize > dataCapacity) throw SMCError::keyMissing();
  std::vector<std::uint8_t> payload(info->dataSize, 0);
  payload.back() = value;
  write(code, *info, payload);
}

void HelperSMC::writeRPM(std::string_view key, double value) {
  const FourCC code = keyCode(key);
  const std::optional<KeyInfo> info = keyInfo(code);
  if (!info) throw SMCError::keyMissing();
  const auto payload = encode(value, info->dataType, info->dataSize);
  if (!payload) throw SMCError::keyMissing();
  write(code, *info, *payload);
}

}  // namespace quorvane
