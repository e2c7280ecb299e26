// The helper at rest: what it holds, and that it does nothing.
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "Groups.h"

namespace quorvane::bench {
namespace {

/// The sum of the numbers behind those names in a file of /proc.
double sumOf(const std::filesystem::path& file, const std::vector<std::string>& names) {
  std::ifstream lines(file);
  double sum = 0;
  for (std::string line; std::getline(lines, line);) {
    for (const std::string& name : names) {
      if (line.starts_with(name + ":")) sum += std::stod(line.substr(name.size() + 1));
    }
  }
  return sum;
}

Samples one(double value) {
  Samples samples;
  samples.add(value);
  return samples;
}

/// See proc(5).
class Process {
 public:
  explicit Process(pid_t number) : pid(number), folder("/proc/" + std::to_string(pid)) {}

  const pid_t pid;

  [[nodiscard]] double residentMB() const { return sumOf(rollup(), {"Rss"}) / 1024; }
  [[nodiscard]] double privateMB() const {
    return sumOf(rollup(), {"Private_Clean", "Private_Dirty"}) / 1024;
  }
  [[nodiscard]] double anonymousMB() const { return sumOf(rollup(), {"Anonymous"}) / 1024; }
  [[nodiscard]] double threads() const { return sumOf(folder / "status", {"Threads"}); }
  /// How often its threads went to sleep or were interrupted: a thread that sleeps on adds nothing.
  [[nodiscard]] double wakeups() const {
    double sum = 0;
    for (const auto& task : std::filesystem::directory_iterator(folder / "task")) {
      sum +=
          sumOf(task.path() / "status", {"voluntary_ctxt_switches", "nonvoluntary_ctxt_switches"});
    }
    return sum;
  }

 private:
  [[nodiscard]] std::filesystem::path rollup() const { return folder / "smaps_rollup"; }

  std::filesystem::path folder;
};

void measureMemoryOf(Report& report, const std::string& when, const Process& process, Aim aim) {
  report.add({"resident memory, " + when, "MB", one(process.residentMB()), {}, aim});
  report.add({"  of that in no other process", "MB", one(process.privateMB())});
  report.add({"  of that no file's", "MB", one(process.anonymousMB())});
}

void measureIdleness(Report& report, const Process& process, int seconds) {
  // The threads that have served the last request are still on their way to sleep.
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  const double wakeups = process.wakeups();
  const double used = processorMicroseconds(process.pid);
  for (int i = 0; i < seconds; ++i) {
    Report::progress("idle, " + std::to_string(seconds - i) + " s to go");
    std::this_thread::sleep_for(std::chrono::seconds(1));
  }
  const std::string idle = "idle for " + std::to_string(seconds) + " s: ";
  report.add(
      {idle + "wakeups", "", one(process.wakeups() - wakeups), one(0), {Aim::Kind::atMost, 0}});
  report.add({idle + "processor time", "ms",
              one((processorMicroseconds(process.pid) - used) / 1000), one(0)});
  report.add({idle + "threads", "", one(process.threads())});
}

}  // namespace

void measureMemory(Report& report, const Setting& setting) {
  Report::progress("memory");
  const Machine machine = setting.machine("memory");
  const Helper helper(Helper::real, machine);
  const Process process(helper.pid());
  measureMemoryOf(report, "before a connection", process, {Aim::Kind::atMost, 6});
  std::vector<Channel> channels;
  channels.push_back(machine.enter());
  measureMemoryOf(report, "after the first", process, {Aim::Kind::atMost, 8});

  // A manual period that is over must leave nothing behind that wakes.
  channels.front().call(writeRequest("F0Tg", 2500));
  channels.front().call(writeRequest("F0Md", 0));
  measureIdleness(report, process, setting.quick ? 3 : 30);

  const int count = setting.quick ? 100'000 : 1'000'000;
  Report::progress("memory over " + std::to_string(count) + " requests");
  const std::vector<std::string> requests{writeRequest("F0Tg", 2500), pingRequest(),
                                          writeRequest("F1Md", 1),    statusRequest(),
                                          writeRequest("FNum", 0),    writeRequest("F1Md", 0)};
  pipeline(channels, requests, count / 20);
  const double before = process.residentMB();
  pipeline(channels, requests, count);
  report.add({"growth over " + std::to_string(count) + " requests",
              "kB",
              one((process.residentMB() - before) * 1024),
              {},
              {Aim::Kind::atMost, 64}});
}

}  // namespace quorvane::bench
