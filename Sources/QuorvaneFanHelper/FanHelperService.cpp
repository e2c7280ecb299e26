#include "QuorvaneFanHelper/FanHelperService.h"

#include <sys/sysctl.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <mutex>
#include <utility>
#include <vector>

#include "Platform/NoDestructor.h"
#include "Platform/UTF8.h"
#include "QuorvaneFanHelper/AuditLog.h"
#include "QuorvaneFanHelper/LastResort.h"

namespace quorvane {
namespace {

constexpr std::int64_t automaticMode = 0;
constexpr std::int64_t forcedMode = 1;

constexpr std::chrono::seconds lease(FanControlConstants::leaseSeconds);
constexpr std::chrono::seconds maxManual(FanControlConstants::maxManualSeconds);

std::string joined(const std::set<std::int64_t>& fans, std::string_view separator) {
  std::string text;
  for (const std::int64_t fan : fans) {
    if (!text.empty()) text += separator;
    text += std::to_string(fan);
  }
  return text;
}

std::string readModel() {
  // Ignores the calls' results: the size and the buffer show a failure.
  std::size_t size = 0;
  sysctlbyname("hw.model", nullptr, &size, nullptr, 0);
  if (size < 1) return "Unknown";
  std::string text(size, '\0');
  sysctlbyname("hw.model", text.data(), &size, nullptr, 0);
  return replacingInvalidUTF8(std::string_view(text).substr(0, text.find('\0')));
}

}  // namespace

FanHelperService::FanHelperService()
    : log(os_log_create("com.quorvane.app", "FanHelper")), queue("com.quorvane.fanhelper.smc") {}

const std::string& FanHelperService::model() {
  static const NoDestructor<std::string> text(readModel());
  return *text;
}

void FanHelperService::startup() {
  queue.sync([this] {
    try {
      smc.connect();
      smcOpen = true;
    } catch (const SMCError& error) {
      os_log_error(log, "SMC open failed: %{public}s", error.text().c_str());
    }
    restoreAllLocked("startup baseline");
    audit("helper " + version + " started; model=" + model() +
          " fans=" + std::to_string(fanCountLocked()));
  });
}

void FanHelperService::shutdownReleasing() {
  queue.sync([this] {
    restoreAllLocked("shutdown");
    // A write queued behind this block would force a fan again, and nothing would restore it.
    queue.suspend();
  });
}

// The twenty keys are four ASCII bytes each, so a comparison of bytes refuses every other text.
std::optional<FanHelperService::FanKey> FanHelperService::classify(std::string_view key) {
  if (key.size() != 4 || key[0] != 'F' || key[1] < '0' || key[1] > '9') return std::nullopt;
  const std::int64_t index = key[1] - '0';
  const std::string_view suffix = key.substr(2);
  if (suffix == "Md") return FanKey{FanKey::Kind::mode, index};
  if (suffix == "Tg") return FanKey{FanKey::Kind::target, index};
  return std::nullopt;
}

std::optional<std::string> FanHelperService::valueRefusal(const FanKey& fanKey, std::int64_t value,
                                                          bool isFloat) {
  switch (fanKey.kind) {
    case FanKey::Kind::target:
      if (value < 0 || value > FanControlConstants::maxTargetRPM) return "RPM out of range";
      break;
    case FanKey::Kind::mode:
      if ((value != automaticMode && value != forcedMode) || isFloat) return "Bad mode value";
      break;
  }
  return std::nullopt;
}

void FanHelperService::writeFanKey(std::string key, std::int64_t value, bool isFloat,
                                   OutcomeReply reply) {
  queue.async([self = shared_from_this(), key = std::move(key), value, isFloat,
               box = std::make_shared<UncheckedBox<OutcomeReply>>(std::move(reply))] {
    std::optional<std::string> refusal = self->performWriteLocked(key, value, isFloat);
    const bool success = !refusal;
    box->value(success, std::move(refusal));
  });
}

std::optional<std::string> FanHelperService::performWriteLocked(const std::string& key,
                                                                std::int64_t value, bool isFloat) {
  if (!smcOpen) return "SMC not open";
  const std::optional<FanKey> fanKey = classify(key);
  if (!fanKey) {
    audit("REJECTED non-fan key " + key);
    return "Refused: " + key + " is not a fan-control key";
  }
  if (auto refusal = valueRefusal(*fanKey, value, isFloat)) return refusal;
  try {
    sendLocked(*fanKey, key, value);
  } catch (const SMCError& error) {
    restoreAllLocked("write error");
    return error.text();
  }
  if (fanKey->kind == FanKey::Kind::mode && value == automaticMode) {
    noteReleasedLocked(fanKey->index);
  } else {
    noteForcedLocked(fanKey->index);
  }
  audit("write " + key + "=" + std::to_string(value));
  return std::nullopt;
}

void FanHelperService::sendLocked(const FanKey& fanKey, const std::string& key,
                                  std::int64_t value) {
  const std::lock_guard turn(forcingTurn());
  switch (fanKey.kind) {
    case FanKey::Kind::target:
      return smc.writeRPM(key, static_cast<double>(value));
    case FanKey::Kind::mode:
      return smc.writeByte(key, static_cast<std::uint8_t>(value));
  }
}

void FanHelperService::noteForcedLocked(std::int64_t index) {
  forcedFans.insert(index);
  armWatchdogLocked();
}

void FanHelperService::noteReleasedLocked(std::int64_t index) {
  forcedFans.erase(index);
  if (forcedFans.empty()) cancelTimersLocked();
}

// A renewal replaces the lease and keeps the cap, so that no renewal outlasts the cap. The timer
// must be a new one: the end of the old one cancels a handler that already waits on the queue.
void FanHelperService::armWatchdogLocked() {
  watchdog.emplace(queue, lease, [weakSelf = weak_from_this()] {
    if (const auto self = weakSelf.lock()) self->leaseExpiredLocked();
  });
  if (hardCap) return;
  hardCap.emplace(queue, maxManual, [weakSelf = weak_from_this()] {
    if (const auto self = weakSelf.lock()) self->hardCapReachedLocked();
  });
}

void FanHelperService::cancelTimersLocked() {
  watchdog.reset();
  hardCap.reset();
}

void FanHelperService::leaseExpiredLocked() {
  os_log(log, "Fan lease expired — fail-safe restoring automatic");
  audit("lease expired — fail-safe");
  restoreAllLocked("lease expired");
}

void FanHelperService::hardCapReachedLocked() {
  audit("max manual duration reached — fail-safe");
  restoreAllLocked("hard cap");
}

void FanHelperService::restoreAuto(OutcomeReply reply) {
  queue.async([self = shared_from_this(),
               box = std::make_shared<UncheckedBox<OutcomeReply>>(std::move(reply))] {
    self->restoreAllLocked("app requested");
    box->value(true, std::nullopt);
  });
}

void FanHelperService::restoreAllLocked(std::string_view reason) {
  if (!smcOpen) return;
  for (const std::int64_t fan : fansToRestoreLocked()) {
    try {
      smc.writeByte("F" + std::to_string(fan) + "Md", automaticMode);
    } catch (const SMCError&) {
      // Continues with the other fans. There is nobody to report to.
    }
  }
  if (!forcedFans.empty()) {
    audit(std::string("restore → automatic (").append(reason).append("); fans=[") +
          joined(forcedFans, ", ") + "]");
  }
  forcedFans.clear();
  cancelTimersLocked();
}

/// Returns the forced fans. If there are none, a crashed process may have left some forced: returns
/// every fan that the SMC counts, and at least the first.
std::set<std::int64_t> FanHelperService::fansToRestoreLocked() {
  if (!forcedFans.empty()) return forcedFans;
  std::set<std::int64_t> fans;
  const unsigned count = std::max(1U, fanCountLocked());
  for (unsigned fan = 0; fan < count; ++fan) fans.insert(fan);
  return fans;
}

unsigned FanHelperService::fanCountLocked() {
  return smc.readByte("FNum").value_or(0);
}

void FanHelperService::status(StatusReply reply) {
  queue.async([self = shared_from_this(),
               box = std::make_shared<UncheckedBox<StatusReply>>(std::move(reply))] {
    box->value(self->statusReportLocked());
  });
}

StatusReport FanHelperService::statusReportLocked() {
  StatusReport report;
  report.reserve(6);
  report.emplace_back("version", version);
  report.emplace_back("model", model());
  report.emplace_back("smcOpen", smcOpen ? "1" : "0");
  report.emplace_back("fanCount", std::to_string(fanCountLocked()));
  report.emplace_back("forcedFans", joined(forcedFans, ","));
  report.emplace_back("leaseSeconds", std::to_string(FanControlConstants::leaseSeconds));
  return report;
}

void FanHelperService::ping(PingReply reply) {
  reply("ok " + version);
}

}  // namespace quorvane
