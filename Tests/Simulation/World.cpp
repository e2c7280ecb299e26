#include "Simulation/World.h"

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "Platform/SystemPath.h"
#include "QRVFanShared/FanControlXPC.h"
#include "Simulation/Model.h"
#include "Support/VirtualDispatch.h"

namespace quorvane {
namespace simulation {
namespace {

using namespace std::chrono_literals;

World* current = nullptr;

}  // namespace

World::World(std::uint64_t seed, std::string folder, Coverage& covered, Outcome& told)
    : coverage(covered), outcome(told), random(seed), root(std::move(folder)) {
  current = this;
  ScriptedSMC& smc = machine();
  smc.reset();
  smc.fate = [this](const ScriptedSMC::Call& call) { return fate(call); };
  smc.ended = [this](const ScriptedSMC::Call& call) { ended(call); };
  fans = static_cast<int>(below(11));
  smc.addKey("TC0P", "sp78", 2, 0x80, {40, 0});
  for (int fan = 0; fan < fans; ++fan) {
    const std::string name = "F" + std::to_string(fan);
    const std::string type = oneIn(16) ? "hex_" : pick({"flt ", "fpe2"});
    const std::uint32_t size = oneIn(16) ? pick({1U, 2U, 8U}) : type == "flt " ? 4 : 2;
    if (!oneIn(20)) smc.addKey(name + "Tg", type, size, 0xC0, {1, 2, 3, 4});
    const std::uint32_t modeSize = pick({1U, 1U, 1U, 2U, 32U});
    if (!oneIn(20)) smc.addKey(name + "Md", "ui8 ", modeSize, 0xD0, {pick<std::uint8_t>({0, 1})});
  }
  heal();
}

void World::drawRates(bool isCalm) {
  heal();
  rates.auditFault = pick({0U, 5U, 50U});
  if (isCalm) return;
  rates.callFault = pick({0U, 0U, 4U, 30U, 200U});
  rates.slowCall = pick({0U, 0U, 20U, 200U});
  rates.death = pick({0U, 0U, 300U, 2000U});
  rates.signal = pick({0U, 50U, 200U});
  rates.machineFault = pick({0U, 5U, 50U});
}

void World::machineActs() {
  const std::string fan = "F" + std::to_string(below(10));
  const std::string key = pick({std::string("FNum"), fan + "Md", fan + "Tg"});
  static constexpr std::array names{"key gone", "key refuses writes", "fan count lies"};
  const auto what = below(names.size());
  ++coverage[names.at(what)];
  note(names.at(what) + (" " + key));
  if (what < 2) {
    broken[key] = what == 0 ? 132 : 134;
    return;
  }
  const std::uint32_t size = pick({1U, 1U, 2U, 0U});
  machine().addKey("FNum", "ui8 ", size, 0x80, {pick<std::uint8_t>({0, 1, 2, 10, 11, 255})});
}

void World::heal() {
  rates = {};
  broken.clear();
  machine().setFanCount(static_cast<std::uint8_t>(fans));
  readAudit();
  arrangeAudit(0);
}

ScriptedSMC::Failure World::fate(const ScriptedSMC::Call& call) {
  if (isDead) throw ProcessDied{};
  if (oneIn(rates.death)) {
    ++coverage["death before a call"];
    saw({.call = call, .died = true});
  }
  const bool isWrite = call.operation == ScriptedSMC::Operation::write;
  const auto found = broken.find(call.key);
  if (found != broken.end() && (found->second == 132 || isWrite)) return {.result = found->second};
  if (!oneIn(rates.callFault)) return {};
  const bool isApplied = isWrite && oneIn(4);
  if (isApplied) ++coverage["effect despite an error"];
  static constexpr std::array names{"kernel error", "result byte", "short reply"};
  const auto what = isApplied ? below(2) : below(3);
  ++coverage[names.at(what)];
  if (what == 2) return {.replySize = pick<std::size_t>({0, 47, 48, 79})};
  if (what == 1) return {.result = pick<std::uint8_t>({1, 132, 134, 255}), .applied = isApplied};
  return {.status = pick({kIOReturnTimeout, kIOReturnBadArgument, 5}), .applied = isApplied};
}

void World::ended(const ScriptedSMC::Call& call) {
  machine().calls.clear();
  Deed deed{.call = call, .died = oneIn(rates.death)};
  if (deed.died) ++coverage["death behind a call"];
  if (oneIn(rates.slowCall)) {
    ++coverage["slow call"];
    deed.took = pick<Time>({1ms, 1s, 25s});
    virtualdispatch::elapse(deed.took);
  }
  saw(std::move(deed));
}

void World::saw(Deed deed) {
  readAudit();
  ++outcome.deeds;
  std::string result;
  if (const auto& call = deed.call; !call.key.empty()) {
    deed.text = describe(call.request);
    result = " -> " + std::to_string(call.status) + " " + std::to_string(call.reply[40]) + " " +
             std::to_string(call.replySize) + (call.applied ? " applied" : "");
  }
  note(deed.text + (deed.died ? ", and death" : result));
  promises.saw(deed, virtualdispatch::now());
  isDead = deed.died;
  seen.push_back(std::move(deed));
  if (isDead) throw ProcessDied{};
}

std::string World::auditPath(std::string_view path) {
  if (isDead) throw ProcessDied{};
  readAudit();
  if (oneIn(rates.auditFault)) arrangeAudit(below(5));
  const bool dies = oneIn(rates.death);
  if (dies) ++coverage["death before an audit line"];
  saw({.text = "audit", .recordable = isRecordable, .died = dies});
  isAuditPending = true;
  return root + std::string(path);
}

void World::readAudit() {
  if (!std::exchange(isAuditPending, false) || !isRecordable) return;
  std::ifstream file(root + FanControlConstants::auditLogPath, std::ios::binary);
  file.seekg(static_cast<std::streamoff>(auditSize));
  const std::string line{std::istreambuf_iterator<char>(file), {}};
  auditSize += line.size();
  const bool isLine = line.size() > 22 && line.substr(19, 3) == "Z  " && line.back() == '\n';
  std::string& text = seen.back().text;
  text += " " + (isLine ? line.substr(22, line.size() - 23) : "not a line: " + line);
  note(text);
}

void World::arrangeAudit(std::size_t place) {
  static constexpr std::array names{"audit log gone", "audit log a folder", "audit log a fifo",
                                    "disk full", "audit folder a file"};
  ++coverage[names.at(place)];
  const std::filesystem::path file = root + FanControlConstants::auditLogPath;
  const auto folder = file.parent_path();
  std::filesystem::remove_all(root + "/Library");
  isRecordable = place == 0;
  auditSize = 0;
  if (isRecordable) return;
  std::filesystem::create_directories(place == 4 ? folder.parent_path() : folder);
  if (place == 1) std::filesystem::create_directory(file);
  if (place == 2) mkfifo(file.c_str(), 0600);
  if (place == 3) std::filesystem::create_symlink("/dev/full", file);
  if (place == 4) std::ofstream(folder).put('\n');
}

void World::note(const std::string& line) {
  for (const char character : line) {  // FNV-1a
    outcome.hash = (outcome.hash ^ static_cast<unsigned char>(character)) * 1099511628211U;
  }
  outcome.trace.push_back(std::to_string(virtualdispatch::now().count()) + " " + line);
  if (outcome.trace.size() > 40) outcome.trace.pop_front();
}

}  // namespace simulation

/// In the place of the platform's: the helper asks for it once for each audit line.
std::string systemPath(std::string_view path) {
  return simulation::current->auditPath(path);
}

}  // namespace quorvane
