// The helper at rest: what it holds, and that it does nothing.
#include <filesystem>
#include <fstream>
#include <thread>

#include "Groups.h"

namespace quorvane::bench {
namespace {

/// The sum of the numbers behind those names in a file of proc(5).
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

double kilobytes(pid_t pid, const std::vector<std::string>& names) {
  return sumOf("/proc/" + std::to_string(pid) + "/smaps_rollup", names);
}

/// How often its threads went to sleep or were interrupted: one that sleeps on adds nothing.
double wakeups(pid_t pid) {
  double sum = 0;
  for (const auto& task : tasksOf(pid)) {
    sum += sumOf(task.path() / "status", {"voluntary_ctxt_switches", "nonvoluntary_ctxt_switches"});
  }
  return sum;
}

Samples one(double value) {
  Samples samples;
  samples.add(value);
  return samples;
}

void measureMemoryOf(Report& report, const std::string& when, pid_t pid, Aim aim) {
  const auto add = [&](const std::string& what, const std::vector<std::string>& names, Aim of) {
    report.add({what, "MB", one(kilobytes(pid, names) / 1024), {}, of});
  };
  add("resident memory, " + when, {"Rss"}, aim);
  add("  of that in no other process", {"Private_Clean", "Private_Dirty"}, {});
  add("  of that no file's", {"Anonymous"}, {});
}

void measureIdleness(Report& report, pid_t pid, int seconds) {
  // The threads that have served the last request are still on their way to sleep.
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  const double before = wakeups(pid);
  const double used = processorMicroseconds(pid);
  for (int i = 0; i < seconds; ++i) {
    Report::progress("idle, " + std::to_string(seconds - i) + " s to go");
    std::this_thread::sleep_for(std::chrono::seconds(1));
  }
  const std::string idle = "idle for " + std::to_string(seconds) + " s: ";
  const Aim none{"0", [](double measured, double) { return measured == 0; }};
  report.add({idle + "wakeups", "", one(wakeups(pid) - before), one(0), none});
  report.add({idle + "processor time", "us", one(processorMicroseconds(pid) - used), one(0)});
  const std::string status = "/proc/" + std::to_string(pid) + "/status";
  report.add({idle + "threads", "", one(sumOf(status, {"Threads"}))});
}

}  // namespace

void measureMemory(Report& report, const Setting& setting) {
  Report::progress("memory");
  const Machine machine = setting.machine("memory");
  const Helper helper(Helper::real, machine);
  const pid_t pid = helper.pid();
  measureMemoryOf(report, "before a connection", pid,
                  {"<= 4", [](double measured, double) { return measured <= 4; }});
  std::vector<Channel> channels;
  channels.push_back(machine.enter());
  measureMemoryOf(report, "after the first", pid,
                  {"<= 4", [](double measured, double) { return measured <= 4; }});

  // A manual period that is over must leave nothing behind that wakes.
  channels.front().call(writeRequest("F0Tg", 2500));
  channels.front().call(writeRequest("F0Md", 0));
  measureIdleness(report, pid, setting.quick ? 3 : 30);

  const int count = setting.quick ? 100'000 : 1'000'000;
  const std::string what = "growth over " + std::to_string(count) + " requests";
  Report::progress(what);
  const std::vector<std::string> requests{writeRequest("F0Tg", 2500), pingRequest(),
                                          writeRequest("F1Md", 1),    statusRequest(),
                                          writeRequest("FNum", 0),    writeRequest("F1Md", 0)};
  pipeline(channels, requests, count / 20);
  const double before = kilobytes(pid, {"Rss"});
  pipeline(channels, requests, count);
  report.add({what,
              "kB",
              one(kilobytes(pid, {"Rss"}) - before),
              {},
              {"<= 64", [](double measured, double) { return measured <= 64; }}});
}

}  // namespace quorvane::bench
