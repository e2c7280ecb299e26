#include "Platform/Linux/Drivers/SMCCall.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstring>
#include <limits>

namespace quorvane::smc {
namespace {

constexpr std::uint32_t structMethodSelector = 2;

}  // namespace

std::optional<double> decodeSpeed(FourCC type, const Data& data) {
  if (type == typeFPE2) return (data[0] * 256 + data[1]) / 4.0;
  float speed = 0;
  std::memcpy(&speed, data.data(), sizeof speed);
  return std::isfinite(speed) ? std::optional<double>(speed) : std::nullopt;
}

Data encodeSpeed(FourCC type, double speed) {
  assert(std::isnan(speed) || std::abs(speed) <= std::numeric_limits<float>::max());
  Data data{};
  if (type == typeFLT) {
    const auto single = static_cast<float>(speed);
    std::memcpy(data.data(), &single, sizeof single);
    return data;
  }
  const auto quarters =
      static_cast<std::uint16_t>(std::lround(std::clamp(speed * 4, 0.0, 65535.0)));
  data[0] = static_cast<std::uint8_t>(quarters >> 8);
  data[1] = static_cast<std::uint8_t>(quarters & 0xFF);
  return data;
}

CallResult withStatus(kern_return_t status) {
  return {.status = status, .reply = {}};
}

CallResult withResult(std::uint8_t result) {
  return {.status = KERN_SUCCESS, .reply = {.result = result}};
}

CallResult withInfo(const KeyDescription& info) {
  return {.status = KERN_SUCCESS,
          .reply = {.size = info.size, .type = info.type, .attributes = info.attributes}};
}

CallResult withData(const Data& data) {
  return {.status = KERN_SUCCESS, .reply = {.data = data}};
}

std::uint8_t refusal(const Record& request, const KeyDescription& key) {
  if (request.size != key.size || request.type != key.type) return resultMismatch;
  const bool reads = request.command == Command::read;
  if ((key.attributes & (reads ? attributeReadable : attributeWritable)) != 0) return 0;
  return reads ? resultNotReadable : resultNotWritable;
}

std::optional<Record> receive(std::uint32_t selector, const void* input, std::size_t inputSize,
                              const void* output, const std::size_t* outputSize) {
  Record request;
  if (selector != structMethodSelector || input == nullptr || inputSize != sizeof request ||
      output == nullptr || outputSize == nullptr || *outputSize < sizeof request) {
    return std::nullopt;
  }
  std::memcpy(&request, input, sizeof request);
  const Command command = request.command;
  if (command != Command::read && command != Command::write && command != Command::info) {
    return std::nullopt;
  }
  return request;
}

kern_return_t send(const CallResult& answer, void* output, std::size_t* outputSize) {
  if (answer.status != KERN_SUCCESS) return answer.status;
  std::memcpy(output, &answer.reply, sizeof answer.reply);
  *outputSize = sizeof answer.reply;
  return KERN_SUCCESS;
}

}  // namespace quorvane::smc
