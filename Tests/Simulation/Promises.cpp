#include "Simulation/Promises.h"

#include <algorithm>

namespace quorvane::simulation {
namespace {

using namespace std::chrono_literals;

std::uint8_t lastByte(const ScriptedSMC::Record& record) {
  return record[47 + record[28]];
}

}  // namespace

void Promises::processStarts() {
  asked.clear(), held.clear(), unreached.clear(), tried.clear();
  excused = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
  counted = countedFirst = 1;
}

void Promises::processStarted() const {
  for (int fan = 0; fan < std::min(countedFirst, 10); ++fan) {
    require(tried.contains(fan), "start-up frees every counted fan", std::to_string(fan));
  }
}

void Promises::saw(const Deed& deed, Time now) {
  const ScriptedSMC::Call& call = deed.call;
  if (const auto list = deed.text.find("forcedFans="); list != std::string::npos) {
    std::string truth = "forcedFans=";
    for (const int fan : held) truth += (fan == *held.begin() ? "" : ",") + std::to_string(fan);
    require(deed.text.find(truth + ";") == list, truth, deed.text);
  }
  if (asked.erase(deed.request) > 0) unreached.clear();
  if (call.key == "FNum" && call.operation == ScriptedSMC::Operation::read && isAnswer(call)) {
    counted = call.request[28] == 0 ? 1 : std::max<int>(1, call.reply[48]);
    if (tried.empty()) countedFirst = counted;
  }
  if (call.key.empty() || (deed.died && !call.applied)) return;
  const int fan = call.key[1] - '0';
  const bool isMode = call.key.ends_with("Md");
  const bool isFan = call.key[0] == 'F' && fan >= 0 && fan <= 9;
  if (call.operation == ScriptedSMC::Operation::write) {
    require(isFan && (isMode || call.key.ends_with("Tg")), "one of twenty keys", deed.text);
    sawWrite(call, fan, now);
  } else if (isFan && isMode && !isAnswer(call)) {
    if (held.contains(fan)) unreached.insert(fan);
    letGo(fan, false);  // without knowing the key it can do no more
  }
}

void Promises::sawWrite(const ScriptedSMC::Call& call, int fan, Time now) {
  const bool worked = call.status == KERN_SUCCESS && call.reply[40] == 0;
  const bool isTarget = call.key[2] == 'T';
  const unsigned mode = lastByte(call.request);
  if (!isTarget && mode == 0) {
    require(
        held.contains(fan) || unreached.contains(fan) || fan < counted || isAsked(call.key, 0, 0),
        "of itself it frees only forced and counted fans", call.key);
    return letGo(fan, worked);
  }
  require(isTarget ? isAsked(call.key, 0, 12000) : mode == 1 && isAsked(call.key, 1, 1),
          "it forces what a client asks for, within the limits", call.key);
  if (!worked && call.applied) excused.insert(fan);
  if (!worked) return;
  if (held.empty()) opened = now;
  held.insert(fan);
  renewed = now;
  if (!isTarget) excused.erase(fan);
}

void Promises::letGo(int fan, bool worked) {
  held.erase(fan);
  tried.insert(fan);
  excused.insert(fan);
  if (worked) excused.erase(fan);
}

bool Promises::isAsked(const std::string& key, std::int64_t least, std::int64_t most) const {
  return std::ranges::any_of(asked, [&](const auto& entry) {
    const Request& request = entry.second;
    return request.key == key && request.value >= least && request.value <= most &&
           (key[2] == 'T' || !request.isFloat);
  });
}

void Promises::atRest(Time now, const Keys& keys) const {
  require(held.empty() || now - renewed < 20s, "no fan is forced past its lease", "one is");
  require(held.empty() || now - opened < 1800s, "no fan is forced past the cap", "one is");
  for (int fan = 0; fan < 10; ++fan) {
    const auto key = keys.find("F" + std::to_string(fan) + "Md");
    if (key == keys.end() || held.contains(fan) || excused.contains(fan)) continue;
    require(lastByte(key->second) == 0, "a fan given back runs by itself", key->first);
  }
}

}  // namespace quorvane::simulation
