#include "Platform/Linux/Drivers/SimulatedSMC.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

#include "Platform/Linux/Drivers/LittleEndian.h"
#include "Platform/Linux/Drivers/SMCFile.h"

namespace quorvane::simulation {
namespace {

constexpr std::uint32_t structMethodSelector = 2;

enum class Command : std::uint8_t { read = 5, write = 6, info = 9 };

constexpr std::uint8_t resultKeyMissing = 132;
constexpr std::uint8_t resultNotReadable = 133;
constexpr std::uint8_t resultNotWritable = 134;
constexpr std::uint8_t resultMismatch = 135;

/// The driver's parameter record, without the bytes that nobody reads.
struct Record {
  static constexpr std::size_t byteCount = 80;
  using Bytes = std::array<std::uint8_t, byteCount>;

  FourCharCode key = 0;
  std::uint32_t size = 0;
  FourCharCode type = 0;
  std::uint8_t attributes = 0;
  std::uint8_t result = 0;
  std::uint8_t command = 0;
  Data data{};
};

Record decode(const Record::Bytes& bytes) {
  Record record;
  record.key = loadLittleEndian<std::uint32_t>(bytes.data());
  record.size = loadLittleEndian<std::uint32_t>(bytes.data() + 28);
  record.type = loadLittleEndian<std::uint32_t>(bytes.data() + 32);
  record.attributes = bytes[36];
  record.command = bytes[42];
  std::memcpy(record.data.data(), bytes.data() + 48, record.data.size());
  return record;
}

Record::Bytes encode(const Record& record) {
  Record::Bytes bytes{};
  storeLittleEndian(bytes.data() + 28, record.size);
  storeLittleEndian(bytes.data() + 32, record.type);
  bytes[36] = record.attributes;
  bytes[40] = record.result;
  std::memcpy(bytes.data() + 48, record.data.data(), record.data.size());
  return bytes;
}

struct Answer {
  kern_return_t status = KERN_SUCCESS;
  Record reply;
};

Answer withStatus(kern_return_t status) {
  return {.status = status, .reply = {}};
}

Answer withResult(std::uint8_t result) {
  Answer answer;
  answer.reply.result = result;
  return answer;
}

kern_return_t kernelReturn(int error) {
  if (error == 0) return KERN_SUCCESS;
  if (error == ENOENT) return kIOReturnNoDevice;
  if (error == EACCES || error == EPERM) return kIOReturnNotPrivileged;
  return kIOReturnError;
}

Answer info(const Key& key) {
  Answer answer;
  answer.reply.size = key.size;
  answer.reply.type = key.type;
  answer.reply.attributes = key.attributes;
  return answer;
}

Answer readKey(const Key& key, const SMCMachine& machine, std::chrono::nanoseconds now) {
  if ((key.attributes & attributeReadable) == 0) return withResult(resultNotReadable);
  Answer answer;
  answer.reply.data = machine.value(key, now);
  return answer;
}

Answer writeKey(Key& key, const Record& request, SMCFile& file, std::chrono::nanoseconds now) {
  if ((key.attributes & attributeWritable) == 0) return withResult(resultNotWritable);
  Data value{};
  std::copy_n(request.data.begin(), key.size, value.begin());
  file.machine.setValue(key, value, now);
  return withStatus(kernelReturn(file.save()));
}

Answer serve(const Record& request, Command command, SMCFile& file, std::chrono::nanoseconds now) {
  Key* key = file.machine.find(request.key);
  if (key == nullptr) return withResult(resultKeyMissing);
  if (command == Command::info) return info(*key);
  if (key->failure == Failure::call) return withStatus(key->failureValue);
  if (key->failure == Failure::result) {
    return withResult(static_cast<std::uint8_t>(key->failureValue));
  }
  if (request.size != key->size || request.type != key->type) return withResult(resultMismatch);
  return command == Command::read ? readKey(*key, file.machine, now)
                                  : writeKey(*key, request, file, now);
}

const char* nameOf(Command command) {
  if (command == Command::info) return "info";
  return command == Command::read ? "read" : "write";
}

std::string traceLine(const Record& request, Command command, const Answer& answer) {
  const bool done = answer.status == KERN_SUCCESS && answer.reply.result == 0;
  const Record& shown = command == Command::info ? answer.reply : request;
  const Data& data = command == Command::write ? request.data : answer.reply.data;
  const bool hasData = command == Command::write || (command == Command::read && done);
  const std::string bytes = hex(data.data(), std::min<std::size_t>(request.size, data.size()));
  char line[192];  // Enough for the longest: 32 data bytes, and a name of four unprintable ones.
  std::snprintf(line, sizeof line, "%s %s %u %08x %u %s -> %d %u\n", nameOf(command),
                printable(request.key).c_str(), shown.size, shown.type, shown.attributes,
                hasData && !bytes.empty() ? bytes.c_str() : "-", answer.status,
                answer.reply.result);
  return line;
}

/// One write a line, so that lines of several processes never mix. A trace that cannot be written
/// changes nothing for the caller.
void appendToTrace(const std::string& path, const std::string& line) {
  const int descriptor = open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC | O_NONBLOCK);
  if (descriptor < 0) return;
  [[maybe_unused]] const ssize_t ignored = write(descriptor, line.data(), line.size());
  close(descriptor);
}

}  // namespace

SimulatedSMC::SimulatedSMC(std::string smcFile, Clock clock)
    : file(std::move(smcFile)), now(std::move(clock)) {}

kern_return_t SimulatedSMC::callStructMethod(std::uint32_t selector, const void* input,
                                             std::size_t inputSize, void* output,
                                             std::size_t* outputSize) {
  if (selector != structMethodSelector || input == nullptr || inputSize != Record::byteCount ||
      output == nullptr || outputSize == nullptr || *outputSize < Record::byteCount) {
    return kIOReturnBadArgument;
  }
  Record::Bytes bytes{};
  std::memcpy(bytes.data(), input, bytes.size());
  const Record request = decode(bytes);
  const auto command = static_cast<Command>(request.command);
  if (command != Command::read && command != Command::write && command != Command::info) {
    return kIOReturnBadArgument;
  }

  SMCFile opened;
  const int error = opened.open(
      file, command == Command::write ? SMCFile::Access::change : SMCFile::Access::read);
  const Answer answer =
      error != 0 ? withStatus(kernelReturn(error)) : serve(request, command, opened, now());
  // The lock is still held: lines come in the order of effects.
  appendToTrace(file + ".trace", traceLine(request, command, answer));

  if (answer.status != KERN_SUCCESS) return answer.status;
  bytes = encode(answer.reply);
  std::memcpy(output, bytes.data(), bytes.size());
  *outputSize = bytes.size();
  return KERN_SUCCESS;
}

}  // namespace quorvane::simulation
