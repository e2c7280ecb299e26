// The user client of the simulated SMC: 80-byte records in and out, as the AppleSMC driver has them
// at selector 2, over the machine in a file. Every process that opens one sees the same machine.
//
// Commands: 5 reads a key, 6 writes one, 9 asks for its size, type and attributes.
// SMC results: 132 no such key, 133 not readable, 134 not writable, as hardware answers; 135, by
// our choice, when a read or write quotes another size or type than the key's own. An injected
// failure goes before all of them but 132, and only for reads and writes: the key's info stays
// available, as helpers keep it and would never come to the failing call otherwise. Kernel errors:
// kIOReturnBadArgument for another selector, command or record size, kIOReturnNoDevice when the
// file is gone, kIOReturnNotPrivileged when the process may not open it, kIOReturnError for any
// other trouble with it: cut short, garbage, no room on the disk.
//
// Trace: while a file "smc.trace" lies beside the machine's file, each call with a known command
// appends one line to it, in the order of effects across processes, as far as it can be written:
//   write F0Tg 4 666c7420 192 00401c45 -> 0 0
// operation, key, size, type, attributes (as quoted; for `info` as answered), the data written or
// read, or `-`, and what the call answered: kernel return and SMC result.
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
