// Measures the helper against what the machine itself takes, see Documentation/performance.md.
// Scripts/bench builds, signs and runs it.
#include <sys/utsname.h>
#include <sys/vfs.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <thread>

#include "Floor.h"
#include "Groups.h"

namespace quorvane::bench {
namespace {

std::string processorName() {
  std::ifstream lines("/proc/cpuinfo");
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("model name")) return line.substr(line.find(':') + 2);
  }
  return "unknown";
}

std::string fileSystemOf(const std::string& folder) {
  struct statfs status {};
  statfs(folder.c_str(), &status);
  constexpr long tmpfs = 0x01021994, ext = 0xEF53;  // statfs(2)
  const auto type = static_cast<long>(status.f_type);
  if (type == tmpfs) return "tmpfs";
  if (type == ext) return "ext4";
  char number[32];
  std::snprintf(number, sizeof number, "0x%lx", type);
  return number;
}

struct Group {
  std::string_view name;
  void (*measure)(Report& report, const Setting& setting);
};

constexpr Group groups[] = {{"calls", measureCalls},         {"pipelines", measurePipelines},
                            {"admission", measureAdmission}, {"start", measureStartAndStop},
                            {"memory", measureMemory},       {"lease", measureLease}};

int run(const Setting& setting, const std::string& resultFile, const std::string& commit) {
  utsname system{};
  uname(&system);
  const std::vector<std::pair<std::string, std::string>> facts{
      {"commit", commit},
      {"processor", processorName()},
      {"processors", std::to_string(std::thread::hardware_concurrency())},
      {"system", std::string(system.sysname) + " " + system.release},
      {"audit log on", fileSystemOf(setting.folder)},
      {"length", setting.quick ? "quick" : "full"}};
  if (!runOn(processor)) fail("two processors are needed");
  Report report;
  for (const Group& group : groups) {
    const auto found = std::find(setting.groups.begin(), setting.groups.end(), group.name);
    if (setting.groups.empty() || found != setting.groups.end()) group.measure(report, setting);
  }
  Report::progress("");
  for (const auto& [name, value] : facts) std::printf("%s: %s\n", name.c_str(), value.c_str());
  std::printf("\n");
  report.printTable();
  report.write(resultFile, facts);
  return EXIT_SUCCESS;
}

int usage() {
  std::fprintf(stderr, "usage: bench run full|quick FOLDER ANCHORS RESULT COMMIT [GROUP ...]\n");
  return 2;
}

}  // namespace
}  // namespace quorvane::bench

int main(int argc, char** argv) {
  using namespace quorvane::bench;
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  const std::string role = arguments.empty() ? "" : arguments.front();
  if (role == "floor") return serveAsFloor({arguments.begin() + 1, arguments.end()});
  if (role == "connect") return connectRepeatedly(arguments.at(1), std::stoi(arguments.at(2)));
  if (role == "flood") return floodWithReleases(arguments.at(1));
  if (role != "run" || arguments.size() < 6) return usage();
  return run({arguments[2],
              arguments[3],
              arguments[1] == "quick",
              {arguments.begin() + 6, arguments.end()}},
             arguments[4], arguments[5]);
}
