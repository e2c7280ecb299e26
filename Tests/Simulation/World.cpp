#include "Simulation/World.h"

#include <sys/stat.h>

#include "Platform/SystemPath.h"
#include "QRVFanShared/FanControlXPC.h"
#include "Support/VirtualDispatch.h"

namespace quorvane {
namespace simulation {
namespace {

using namespace std::chrono_literals;

const std::string auditLog = FanControlConstants::auditLogPath;

World* current = nullptr;

}  // namespace

World::World(std::uint64_t seed, const TemporaryRoot& folder, Coverage& covered)
    : root(folder), coverage(covered), random(seed) {
  current = this;
  ScriptedSMC& smc = machine();
  smc.reset();
  smc.fate = [this](const ScriptedSMC::Call& call) { return fate(call); };
  smc.ended = [this](const ScriptedSMC::Call& call) { ended(call); };
  fanCount = static_cast<unsigned>(below(11));
  smc.addKey("TC0P", "sp78", 2, 0x80, {40, 0});
  for (unsigned fan = 0; fan < fanCount; ++fan) {
    const std::string name = "F" + std::to_string(fan);
    const std::string type = oneIn(16) ? "hex_" : pick({"flt ", "fpe2"});
    const std::uint32_t size = oneIn(16) ? pick({1U, 2U, 8U}) : type == "flt " ? 4 : 2;
    if (!oneIn(20)) smc.addKey(name + "Tg", type, size, 0xC0, {1, 2, 3, 4});
    const std::uint32_t modeSize = oneIn(16) ? pick({0U, 2U, 32U, 33U}) : 1;
    if (!oneIn(20)) smc.addKey(name + "Md", "ui8 ", modeSize, 0xD0, {pick<std::uint8_t>({0, 1})});
  }
  startPhase(/*calm=*/true);
}

bool World::happens(const std::string& situation, unsigned least) {
  std::uint64_t& count = coverage[situation];
  if (isCalm) return false;
  const auto [rate, isNew] = rates.try_emplace(situation);
  if (isNew) rate->second = least * pick({0U, 1U, 5U, 25U});
  if (rate->second == 0 || !oneIn(rate->second)) return false;
  ++count;
  note(situation);
  return true;
}

void World::startPhase(bool calm) {
  isCalm = calm;
  rates.clear();
  broken.clear();
  machine().setFanCount(static_cast<std::uint8_t>(fanCount));
  readAudit();
  arrangeAudit("audit log gone");
}

void World::changeMachine() {
  const std::string fan = "F" + std::to_string(below(10));
  const std::string key = pick({std::string("FNum"), fan + "Md", fan + "Tg"});
  if (happens("key gone", 20)) broken[key] = 132;
  if (happens("key refuses writes", 20)) broken[key] = 134;
  if (!happens("fan count lies", 20)) return;
  const std::uint32_t size = pick({0U, 1U, 2U, 33U});
  machine().addKey("FNum", "ui8 ", size, 0x80, {pick<std::uint8_t>({0, 1, 2, 10, 11, 255})});
}

ScriptedSMC::Failure World::fate(const ScriptedSMC::Call& call) {
  if (isDead) throw ProcessDied{};
  if (happens("death before a call", 300)) saw({.call = call, .died = true});
  const bool isWrite = call.operation == ScriptedSMC::Operation::write;
  const auto found = broken.find(call.key);
  if (found != broken.end() && (found->second == 132 || isWrite)) return {.result = found->second};
  const bool isApplied = isWrite && happens("effect despite an error", 20);
  if (isApplied) return {.result = 255, .applied = true};
  if (happens("result byte", 20)) return {.result = pick<std::uint8_t>({1, 132, 134})};
  if (happens("short reply", 20)) return {.replySize = pick({0UL, 47UL, 48UL, 79UL})};
  if (!happens("kernel error", 20)) return {};
  return {.status = pick({kIOReturnTimeout, kIOReturnBadArgument, 5})};
}

void World::ended(const ScriptedSMC::Call& call) {
  machine().calls.clear();
  Deed deed{.call = call, .died = happens("death behind a call", 300)};
  if (happens("slow call", 20)) deed.took = pick<Time>({1ms, 1s, 25s});
  virtualdispatch::elapse(deed.took);
  saw(std::move(deed));
}

void World::saw(Deed deed) {
  readAudit();
  ++outcome.deeds;
  if (!deed.call.key.empty()) {
    deed.text = describe(deed.call.request);
    checkCall(deed.call);
  }
  note(deed.text);
  isDead = deed.died;
  seen.push_back(std::move(deed));
  if (isDead) throw ProcessDied{};
}

void World::processStarts() {
  note("process starts");
  isDead = false;
  asked.clear();
  forcedSince.clear();
}

void World::checkCall(const ScriptedSMC::Call& call) {
  const std::string& key = call.key;
  if (call.operation != ScriptedSMC::Operation::write) {
    if (!isAnswer(call)) forcedSince.erase(key);
    return;
  }
  require(call.isFanKey(), "one of twenty keys", key);
  const int value = call.request[47U + call.request[28]];
  const bool isForcing = !call.isFanMode() || value == 1;
  require(isForcing || value == 0, "mode 0 or 1", std::to_string(value));
  require(!isForcing || asked.contains(key), "of itself it only writes automatic mode", key);
  if (!isForcing) forcedSince.erase(key);
  if (!isForcing || call.status != KERN_SUCCESS || call.reply[40] != 0) return;
  renewed = virtualdispatch::now();
  if (call.isFanMode()) forcedSince.emplace(key, renewed);
}

void World::checkLeases() const {
  const Time now = virtualdispatch::now();
  for (const auto& [key, since] : forcedSince) {
    require(now - renewed < 20s && now - since < 1800s, "no fan is forced for so long", key);
  }
}

std::string World::auditPath(std::string_view path) {
  if (isDead) throw ProcessDied{};
  readAudit();
  for (const char* name :
       {"audit log gone", "audit log a fifo", "audit folder a file", "disk full"}) {
    if (happens(name, 20)) arrangeAudit(name);
  }
  saw({.text = "audit", .isRecordable = isRecordable});
  isAuditPending = true;
  return root.path(std::string(path));
}

void World::readAudit() {
  if (!std::exchange(isAuditPending, false) || !isRecordable) return;
  const std::string line = root.read(auditLog);
  root.write(auditLog, "");
  const bool isLine = line.size() > 22 && line.substr(19, 3) == "Z  " && line.back() == '\n';
  std::string& text = seen.back().text;
  text += " " + (isLine ? line.substr(22, line.size() - 23) : "not a line: " + line);
  note(text);
}

void World::arrangeAudit(const std::string& situation) {
  const std::filesystem::path log(auditLog);
  std::filesystem::remove_all(root.path("/Library"));
  isRecordable = situation == "audit log gone";
  if (situation == "audit folder a file") root.write(log.parent_path(), "");
  if (situation == "audit log a fifo") mkfifo(root.prepare(log).c_str(), 0600);
  if (situation == "disk full") std::filesystem::create_symlink("/dev/full", root.prepare(log));
}

void World::note(const std::string& line) {
  for (const char character : line) {  // FNV-1a
    outcome.hash = (outcome.hash ^ static_cast<unsigned char>(character)) * 1099511628211U;
  }
  trace.push_back(std::to_string(virtualdispatch::now().count()) + " " + line);
  if (trace.size() > 40) trace.pop_front();
}

}  // namespace simulation

/// In the place of the platform's: the helper asks for it once for each audit line.
std::string systemPath(std::string_view path) {
  return simulation::current->auditPath(path);
}

}  // namespace quorvane
