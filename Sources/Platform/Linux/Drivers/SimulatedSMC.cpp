#include "Platform/Linux/Drivers/SimulatedSMC.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <optional>

#include "Platform/Clock.h"
#include "Platform/Linux/Drivers/SMCCall.h"
#include "Platform/Linux/Drivers/SMCFile.h"

namespace quorvane::simulation {
namespace {

using smc::CallResult;
using smc::Command;
using smc::Record;
using smc::withResult;
using smc::withStatus;

kern_return_t kernelReturn(int error) {
  if (error == 0) return KERN_SUCCESS;
  if (error == ENOENT) return kIOReturnNoDevice;
  if (error == EACCES || error == EPERM) return kIOReturnNotPrivileged;
  return kIOReturnError;
}

CallResult writeKey(Key& key, const Record& request, SMCFile& file, std::chrono::nanoseconds now) {
  Data value{};
  std::copy_n(request.data.begin(), key.size, value.begin());
  file.machine.setValue(key, value, now);
  return withStatus(kernelReturn(file.save()));
}

CallResult serve(const Record& request, SMCFile& file, std::chrono::nanoseconds now) {
  Key* key = file.machine.find(request.key);
  if (key == nullptr) return withResult(smc::resultKeyMissing);
  const smc::KeyDescription info{key->size, key->type, key->attributes};
  if (request.command == Command::info) return smc::withInfo(info);
  if (key->failure == Failure::call) return withStatus(key->failureValue);
  if (key->failure == Failure::result) {
    return withResult(static_cast<std::uint8_t>(key->failureValue));
  }
  if (const std::uint8_t refused = smc::refusal(request, info); refused != 0) {
    return withResult(refused);
  }
  return request.command == Command::read ? smc::withData(file.machine.value(*key, now))
                                          : writeKey(*key, request, file, now);
}

const char* nameOf(Command command) {
  if (command == Command::info) return "info";
  return command == Command::read ? "read" : "write";
}

std::string traceLine(const Record& request, const CallResult& answer) {
  const Command command = request.command;
  const Record& shown = command == Command::info ? answer.reply : request;
  const Data& data = command == Command::write ? request.data : answer.reply.data;
  const bool hasData =
      command == Command::write || (command == Command::read && answer.isSuccess());
  const std::string bytes = hex(data.data(), std::min<std::size_t>(request.size, data.size()));
  char line[192];  // Enough for 32 data bytes and a key of four unprintable characters.
  std::snprintf(line, sizeof line, "%s %s %u %08x %u %s -> %d %u\n", nameOf(command),
                printable(request.key).c_str(), shown.size, shown.type, shown.attributes,
                hasData && !bytes.empty() ? bytes.c_str() : "-", answer.status,
                answer.reply.result);
  return line;
}

/// Writes a line with one call, so that lines of several processes never mix. Ignores a failure.
void appendToTrace(const std::string& path, const Record& request, const CallResult& answer) {
  const Descriptor trace = openFile(path, O_WRONLY | O_APPEND);
  if (!trace) return;
  const std::string line = traceLine(request, answer);
  [[maybe_unused]] const ssize_t ignored = write(trace.get(), line.data(), line.size());
}

}  // namespace

kern_return_t SimulatedSMC::callStructMethod(std::uint32_t selector, const void* input,
                                             std::size_t inputSize, void* output,
                                             std::size_t* outputSize) {
  const std::optional<Record> request =
      smc::receive(selector, input, inputSize, output, outputSize);
  if (!request) return kIOReturnBadArgument;

  SMCFile opened;
  const int error = opened.open(
      file, request->command == Command::write ? SMCFile::Access::change : SMCFile::Access::read);
  const CallResult answer =
      error != 0 ? withStatus(kernelReturn(error)) : serve(*request, opened, monotonicTime());
  // The lock is still held, so lines come in the order of effects.
  appendToTrace(file + ".trace", *request, answer);
  return smc::send(answer, output, outputSize);
}

}  // namespace quorvane::simulation
