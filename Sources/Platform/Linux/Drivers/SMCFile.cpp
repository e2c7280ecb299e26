#include "Platform/Linux/Drivers/SMCFile.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace quorvane::simulation {
namespace {

struct Header {
  std::array<char, 8> magic{'Q', 'R', 'V', 'S', 'M', 'C'};
  std::uint32_t version = 1;
  std::uint32_t slotCount = SMCMachine::slotCount;
  std::int64_t changedAt = 0;
};
static_assert(sizeof(Header) == 24);

using FileBytes = std::array<std::uint8_t, sizeof(Header) + sizeof(SMCMachine::slots)>;

FileBytes encode(const SMCMachine& machine) {
  Header header;
  header.changedAt = machine.changedAt.count();
  FileBytes bytes;
  std::memcpy(bytes.data(), &header, sizeof header);
  std::memcpy(bytes.data() + sizeof header, machine.slots.data(), sizeof machine.slots);
  return bytes;
}

bool decode(const FileBytes& bytes, SMCMachine& machine) {
  const Header known;
  Header header;
  std::memcpy(&header, bytes.data(), sizeof header);
  std::memcpy(machine.slots.data(), bytes.data() + sizeof header, sizeof machine.slots);
  machine.changedAt = std::chrono::nanoseconds(header.changedAt);
  return header.magic == known.magic && header.version == known.version &&
         header.slotCount == known.slotCount && header.changedAt >= 0 &&
         std::all_of(machine.slots.begin(), machine.slots.end(), [](const Key& key) {
           return key.size <= dataSizeMax && key.failure <= Failure::call;
         });
}

int lock(int descriptor) {
  return untilUninterrupted([&] { return flock(descriptor, LOCK_EX); }) == 0 ? 0 : errno;
}

/// Returns 0 or an errno value. A short write to a regular file means that no room is left.
int writeWhole(int descriptor, const FileBytes& bytes) {
  const ssize_t count = pwrite(descriptor, bytes.data(), bytes.size(), 0);
  if (count < 0) return errno;
  return count == static_cast<ssize_t>(bytes.size()) ? 0 : ENOSPC;
}

}  // namespace

int SMCFile::open(const std::string& path, Access access) {
  file = openFile(path, access == Access::change ? O_RDWR : O_RDONLY);
  if (!file) return errno;
  if (const int error = lock(file.get()); error != 0) return error;
  FileBytes bytes{};
  const ssize_t count = pread(file.get(), bytes.data(), bytes.size(), 0);
  if (count < 0) return errno;
  if (count != static_cast<ssize_t>(bytes.size()) || !decode(bytes, machine)) return EBADMSG;
  return 0;
}

int SMCFile::save() const {
  assert(file);
  return writeWhole(file.get(), encode(machine));
}

int SMCFile::create(const std::string& path, const SMCMachine& machine) {
  std::error_code folderError;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), folderError);
  if (folderError) return folderError.value();
  std::string temporary = path + ".XXXXXX";
  const Descriptor created(mkostemp(temporary.data(), O_CLOEXEC));
  if (!created) return errno;
  int error = writeWhole(created.get(), encode(machine));
  // The mode stays 0600, as mkostemp(3) sets it: a user who can open the file, even for reading
  // only, can hold its lock and so block a restore.
  if (error == 0 && rename(temporary.c_str(), path.c_str()) != 0) error = errno;
  if (error != 0) unlink(temporary.c_str());
  return error;
}

}  // namespace quorvane::simulation
