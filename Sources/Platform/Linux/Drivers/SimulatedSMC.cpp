#include "Platform/Linux/Drivers/SimulatedSMC.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "Platform/Linux/Drivers/SMCFile.h"

namespace quorvane::simulation {
namespace {

constexpr std::uint32_t structMethodSelector = 2;

enum class Command : std::uint8_t { read = 5, write = 6, info = 9 };

constexpr std::uint8_t resultKeyMissing = 132;
constexpr std::uint8_t resultNotReadable = 133;
constexpr std::uint8_t resultNotWritable = 134;
constexpr std::uint8_t resultMismatch = 135;

/// The driver's parameter record. What is unused here is ignored in a request and zero in a reply.
struct Record {
  FourCharCode key = 0;
  std::array<std::uint8_t, 24> unused1{};
  std::uint32_t size = 0;
  FourCharCode type = 0;
  std::uint8_t attributes = 0;
  std::array<std::uint8_t, 3> unused2{};
  std::uint8_t result = 0;
  std::uint8_t unused3 = 0;
  Command command{};
  std::array<std::uint8_t, 5> unused4{};
  Data data{};
};
static_assert(sizeof(Record) == 80);

struct Answer {
  kern_return_t status = KERN_SUCCESS;
  Record reply;
};

Answer withStatus(kern_return_t status) {
  return {.status = status, .reply = {}};
}

Answer withResult(std::uint8_t result) {
  return {.status = KERN_SUCCESS, .reply = {.result = result}};
}

kern_return_t kernelReturn(int error) {
  if (error == 0) return KERN_SUCCESS;
  if (error == ENOENT) return kIOReturnNoDevice;
  if (error == EACCES || error == EPERM) return kIOReturnNotPrivileged;
  return kIOReturnError;
}

Answer info(const Key& key) {
  return {.status = KERN_SUCCESS,
          .reply = {.size = key.size, .type = key.type, .attributes = key.attributes}};
}

Answer readKey(const Key& key, const SMCMachine& machine, std::chrono::nanoseconds now) {
  if ((key.attributes & attributeReadable) == 0) return withResult(resultNotReadable);
  return {.status = KERN_SUCCESS, .reply = {.data = machine.value(key, now)}};
}

Answer writeKey(Key& key, const Record& request, SMCFile& file, std::chrono::nanoseconds now) {
  if ((key.attributes & attributeWritable) == 0) return withResult(resultNotWritable);
  Data value{};
  std::copy_n(request.data.begin(), key.size, value.begin());
  file.machine.setValue(key, value, now);
  return withStatus(kernelReturn(file.save()));
}

Answer serve(const Record& request, SMCFile& file, std::chrono::nanoseconds now) {
  Key* key = file.machine.find(request.key);
  if (key == nullptr) return withResult(resultKeyMissing);
  if (request.command == Command::info) return info(*key);
  if (key->failure == Failure::call) return withStatus(key->failureValue);
  if (key->failure == Failure::result) {
    return withResult(static_cast<std::uint8_t>(key->failureValue));
  }
  if (request.size != key->size || request.type != key->type) return withResult(resultMismatch);
  return request.command == Command::read ? readKey(*key, file.machine, now)
                                          : writeKey(*key, request, file, now);
}

const char* nameOf(Command command) {
  if (command == Command::info) return "info";
  return command == Command::read ? "read" : "write";
}

std::string traceLine(const Record& request, const Answer& answer) {
  const Command command = request.command;
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

kern_return_t SimulatedSMC::callStructMethod(std::uint32_t selector, const void* input,
                                             std::size_t inputSize, void* output,
                                             std::size_t* outputSize) {
  Record request;
  if (selector != structMethodSelector || input == nullptr || inputSize != sizeof request ||
      output == nullptr || outputSize == nullptr || *outputSize < sizeof request) {
    return kIOReturnBadArgument;
  }
  std::memcpy(&request, input, sizeof request);
  const Command command = request.command;
  if (command != Command::read && command != Command::write && command != Command::info) {
    return kIOReturnBadArgument;
  }

  SMCFile opened;
  const int error = opened.open(
      file, command == Command::write ? SMCFile::Access::change : SMCFile::Access::read);
  const Answer answer =
      error != 0 ? withStatus(kernelReturn(error)) : serve(request, opened, bootTime());
  // The lock is still held: lines come in the order of effects.
  appendToTrace(file + ".trace", traceLine(request, answer));

  if (answer.status != KERN_SUCCESS) return answer.status;
  std::memcpy(output, &answer.reply, sizeof answer.reply);
  *outputSize = sizeof answer.reply;
  return KERN_SUCCESS;
}

}  // namespace quorvane::simulation
