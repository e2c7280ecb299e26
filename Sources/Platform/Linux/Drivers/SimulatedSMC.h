// The user client of the simulated SMC: the AppleSMC driver's 80-byte records at selector 2, over
// the machine in a file. All processes that open one see the same machine.
//
// Commands: 5 reads a key, 6 writes one, 9 returns its size, type and attributes.
// SMC results: 132 no such key, 133 not readable, 134 not writable, as on hardware; 135, by our
// choice, if a read or write has another size or type than the key. An injected failure precedes
// all of them except 132. It affects reads and writes only: helpers read a key's info first, keep
// it, and would otherwise never reach the failing call.
// Kernel errors: kIOReturnBadArgument for another selector, command or record size,
// kIOReturnNoDevice if the file is gone, kIOReturnNotPrivileged if the process may not open it,
// kIOReturnError for any other failure of the file: truncated, garbage, no room on the disk.
//
// Trace: while a file "smc.trace" lies beside the machine's file, each call with a known command
// appends one line to it, if possible, in the order of effects across processes:
//   write F0Tg 4 666c7420 192 00401c45 -> 0 0
// operation, key, size, type, attributes (of the request; for `info` of the reply), the data
// written or read or `-`, then the kernel return code and the SMC result.
#pragma once

#include <string>
#include <utility>

#include "Platform/Linux/IOKitRegistry.h"

namespace quorvane::simulation {

class SimulatedSMC final : public iokit::UserClient {
 public:
  explicit SimulatedSMC(std::string smcFile) : file(std::move(smcFile)) {}

  kern_return_t callStructMethod(std::uint32_t selector, const void* input, std::size_t inputSize,
                                 void* output, std::size_t* outputSize) override;

 private:
  const std::string file;
};

}  // namespace quorvane::simulation
