#include "Platform/Linux/Drivers/SMCFile.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <limits>
#include <system_error>

#include "Platform/Linux/Drivers/LittleEndian.h"

namespace quorvane::simulation {
namespace {

constexpr std::string_view magic("QRVSMC\0\0", 8);
constexpr std::uint32_t version = 1;
constexpr std::size_t headerSize = 24;
constexpr std::size_t slotSize = 52;
constexpr std::size_t fileSize = headerSize + SMCMachine::slotCount * slotSize;
using FileBytes = std::array<std::uint8_t, fileSize>;

void storeSlot(std::uint8_t* at, const Key& key) {
  storeLittleEndian(at, key.code);
  storeLittleEndian(at + 4, key.size);
  storeLittleEndian(at + 8, key.type);
  at[12] = key.attributes;
  at[13] = static_cast<std::uint8_t>(key.failure);
  storeLittleEndian(at + 16, static_cast<std::uint32_t>(key.failureValue));
  std::memcpy(at + 20, key.data.data(), key.data.size());
}

bool loadSlot(const std::uint8_t* at, Key& key) {
  key.code = loadLittleEndian<std::uint32_t>(at);
  key.size = loadLittleEndian<std::uint32_t>(at + 4);
  key.type = loadLittleEndian<std::uint32_t>(at + 8);
  key.attributes = at[12];
  if (key.size > dataSizeMax || at[13] > static_cast<std::uint8_t>(Failure::call)) return false;
  key.failure = static_cast<Failure>(at[13]);
  key.failureValue = static_cast<std::int32_t>(loadLittleEndian<std::uint32_t>(at + 16));
  std::memcpy(key.data.data(), at + 20, key.data.size());
  return true;
}

FileBytes encode(const SMCMachine& machine) {
  FileBytes bytes{};
  std::memcpy(bytes.data(), magic.data(), magic.size());
  storeLittleEndian(bytes.data() + 8, version);
  storeLittleEndian(bytes.data() + 12, static_cast<std::uint32_t>(SMCMachine::slotCount));
  storeLittleEndian(bytes.data() + 16, static_cast<std::uint64_t>(machine.changedAt.count()));
  for (std::size_t i = 0; i < SMCMachine::slotCount; ++i) {
    storeSlot(bytes.data() + headerSize + i * slotSize, machine.slots[i]);
  }
  return bytes;
}

bool decode(const FileBytes& bytes, SMCMachine& machine) {
  const auto changedAt = loadLittleEndian<std::uint64_t>(bytes.data() + 16);
  if (std::memcmp(bytes.data(), magic.data(), magic.size()) != 0 ||
      loadLittleEndian<std::uint32_t>(bytes.data() + 8) != version ||
      loadLittleEndian<std::uint32_t>(bytes.data() + 12) != SMCMachine::slotCount ||
      changedAt > std::numeric_limits<std::int64_t>::max()) {
    return false;
  }
  machine.changedAt = std::chrono::nanoseconds(static_cast<std::int64_t>(changedAt));
  for (std::size_t i = 0; i < SMCMachine::slotCount; ++i) {
    if (!loadSlot(bytes.data() + headerSize + i * slotSize, machine.slots[i])) return false;
  }
  return true;
}

int lock(int descriptor) {
  while (flock(descriptor, LOCK_EX) != 0) {
    if (errno != EINTR) return errno;
  }
  return 0;
}

/// 0 or an errno value. A write to a regular file that stops short has no room left.
int writeWhole(int descriptor, const FileBytes& bytes) {
  const ssize_t count = pwrite(descriptor, bytes.data(), bytes.size(), 0);
  if (count < 0) return errno;
  return count == static_cast<ssize_t>(bytes.size()) ? 0 : ENOSPC;
}

}  // namespace

SMCFile::~SMCFile() {
  if (descriptor >= 0) close(descriptor);
}

int SMCFile::open(const std::string& path, Access access) {
  // O_NONBLOCK: a fifo in the file's place is an error, not a wait.
  const int mode = access == Access::change ? O_RDWR : O_RDONLY;
  descriptor = ::open(path.c_str(), mode | O_CLOEXEC | O_NONBLOCK);
  if (descriptor < 0) return errno;
  if (const int error = lock(descriptor); error != 0) return error;
  FileBytes bytes{};
  const ssize_t count = pread(descriptor, bytes.data(), bytes.size(), 0);
  if (count < 0) return errno;
  if (count != static_cast<ssize_t>(bytes.size()) || !decode(bytes, machine)) return EBADMSG;
  return 0;
}

int SMCFile::save() const {
  return writeWhole(descriptor, encode(machine));
}

int SMCFile::create(const std::string& path, const SMCMachine& machine) {
  std::error_code folderError;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), folderError);
  if (folderError) return folderError.value();
  std::string temporary = path + ".XXXXXX";
  const int descriptor = mkostemp(temporary.data(), O_CLOEXEC);
  if (descriptor < 0) return errno;
  int error = writeWhole(descriptor, encode(machine));
  // Who may not change the machine may still look at it: probing needs no privilege.
  if (error == 0 && fchmod(descriptor, 0644) != 0) error = errno;
  if (error == 0 && rename(temporary.c_str(), path.c_str()) != 0) error = errno;
  if (error != 0) unlink(temporary.c_str());
  close(descriptor);
  return error;
}

}  // namespace quorvane::simulation
