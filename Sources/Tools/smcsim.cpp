// smcsim: makes, shows and edits the simulated SMC while other processes use it. Its own accesses
// are not struct calls and leave no trace. Exit status: 0 done, 1 failed, 2 bad usage.
#include <errno.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Clock.h"
#include "Platform/Linux/Drivers/SMCFile.h"
#include "Platform/SystemPath.h"

namespace quorvane::simulation {
namespace {

constexpr int exitDone = 0;
constexpr int exitFailed = 1;
constexpr int exitUsage = 2;

constexpr const char* help =
    R"(usage: smcsim create [--fans N] [--speed-type flt|fpe2]
                                 make the machine, in the place of one that is there
       smcsim show [--watch]     show its fans and keys, once or every second
       smcsim set KEY HEX        give a key a value, like 00401c45
       smcsim remove KEY         take a key away
       smcsim fail KEY result N  let its reads and writes answer SMC result N (1 to 255),
       smcsim fail KEY call N    or fail with kernel return code N,
       smcsim fail KEY clear     or work again
       smcsim --help | --version

The machine is the file /var/lib/quorvane/smc under the folder named by QUORVANE_ROOT, if set.
A machine has 0 to 16 fans; without options 2, with speeds of type flt.
)";

using Arguments = std::vector<std::string_view>;

int failed(const std::string& message) {
  std::fprintf(stderr, "smcsim: %s\n", message.c_str());
  return exitFailed;
}

int misused(const std::string& message) {
  std::fprintf(stderr, "smcsim: %s; see smcsim --help\n", message.c_str());
  return exitUsage;
}

int fileFailed(const std::string& path, int error) {
  if (error == ENOENT) return failed("no machine at " + path + "; make one with: smcsim create");
  if (error == EBADMSG) return failed(path + " is cut short or not a simulated SMC");
  return failed(path + ": " + std::strerror(error));
}

template <class Number>
std::optional<Number> parseNumber(std::string_view text, int base = 10) {
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

std::optional<std::vector<std::uint8_t>> parseHex(std::string_view text) {
  if (text.size() % 2 != 0) return std::nullopt;
  std::vector<std::uint8_t> bytes;
  for (std::size_t i = 0; i < text.size(); i += 2) {
    const auto byte = parseNumber<std::uint8_t>(text.substr(i, 2), 16);
    if (!byte) return std::nullopt;
    bytes.push_back(*byte);
  }
  return bytes;
}

/// Applies `edit` to one key of the machine. `edit` returns why it failed, or an empty string.
int editKey(std::string_view name, const std::function<std::string(SMCMachine&, Key&)>& edit) {
  if (name.size() != 4) return misused("a key has four characters");
  const std::string path = systemPath(smcPath);
  SMCFile file;
  if (const int error = file.open(path, SMCFile::Access::change); error != 0) {
    return fileFailed(path, error);
  }
  Key* key = file.machine.find(fourCC(name));
  if (key == nullptr) return failed("no key " + std::string(name));
  if (const std::string why = edit(file.machine, *key); !why.empty()) return failed(why);
  const int error = file.save();
  return error == 0 ? exitDone : fileFailed(path, error);
}

int create(const Arguments& options) {
  unsigned fanCount = 2;
  FourCC speedType = typeFLT;
  for (std::size_t i = 0; i < options.size(); i += 2) {
    const std::string_view value = i + 1 < options.size() ? options[i + 1] : "";
    if (options[i] == "--fans") {
      const auto number = parseNumber<unsigned>(value);
      if (!number || *number > SMCMachine::fanCountMax) return misused("--fans takes 0 to 16");
      fanCount = *number;
    } else if (options[i] == "--speed-type") {
      if (value != "flt" && value != "fpe2") return misused("--speed-type takes flt or fpe2");
      speedType = value == "flt" ? typeFLT : typeFPE2;
    } else {
      return misused("create does not know " + std::string(options[i]));
    }
  }
  const std::string path = systemPath(smcPath);
  const int error = SMCFile::create(path, SMCMachine::fresh(fanCount, speedType));
  if (error != 0) return failed(path + ": " + std::strerror(error));
  std::printf("made %s: fans %u, speeds %s\n", path.c_str(), fanCount,
              speedType == typeFLT ? "flt" : "fpe2");
  return exitDone;
}

void showFan(const SMCMachine& machine, unsigned fan, std::chrono::nanoseconds now) {
  std::printf("%-4u", fan);
  for (const char* suffix : {"Ac", "Tg", "Mn", "Mx"}) {
    const std::optional<double> speed = machine.speed(fanKey(fan, suffix), now);
    std::printf(" %8s", speed ? std::to_string(std::lround(*speed)).c_str() : "-");
  }
  const Key* mode = machine.find(fanKey(fan, "Md"));
  std::printf("  %s", mode != nullptr ? std::to_string(mode->data[0]).c_str() : "-");
  std::printf(" %s, heads for %.0f\n",
              mode != nullptr && mode->data[0] == 1 ? "forced" : "automatic",
              machine.goal(fanKey(fan, "Md")));
}

void showMachine(const SMCMachine& machine, std::chrono::nanoseconds now) {
  std::printf("Fan    Actual   Target  Minimum  Maximum  Mode\n");
  std::set<FourCC> shown;
  for (unsigned fan = 0; fan < SMCMachine::fanCountMax; ++fan) {
    bool isThere = false;
    for (const char* suffix : {"Ac", "Tg", "Mn", "Mx", "Md"}) {
      const FourCC code = fanKey(fan, suffix);
      shown.insert(code);
      isThere = isThere || machine.find(code) != nullptr;
    }
    if (isThere) showFan(machine, fan, now);
  }
  std::printf("\nOther keys\n");
  for (const Key& key : machine.slots) {
    if (key.code == 0 || shown.contains(key.code)) continue;
    std::printf("%s  %s\n", printable(key.code).c_str(), hex(key.data.data(), key.size).c_str());
  }
  for (const Key& key : machine.slots) {
    if (key.code == 0 || key.failure == Failure::none) continue;
    std::printf("%s is made to fail: %s %d\n", printable(key.code).c_str(),
                key.failure == Failure::result ? "result" : "call", key.failureValue);
  }
}

int showOnce() {
  const std::string path = systemPath(smcPath);
  SMCMachine machine;
  {
    SMCFile file;  // Released before a slow terminal blocks.
    if (const int error = file.open(path, SMCFile::Access::read); error != 0) {
      return fileFailed(path, error);
    }
    machine = file.machine;
  }
  showMachine(machine, monotonicTime());
  return std::fflush(stdout) == 0 ? exitDone : failed("cannot write the output");
}

int watch() {
  // sigtimedwait() receives a blocked SIGINT, even if SIGINT was ignored at the start.
  sigset_t interrupt;
  sigemptyset(&interrupt);
  sigaddset(&interrupt, SIGINT);
  sigprocmask(SIG_BLOCK, &interrupt, nullptr);
  const bool live = isatty(STDOUT_FILENO) == 1;
  const timespec second{.tv_sec = 1, .tv_nsec = 0};
  while (true) {
    std::printf("%s", live ? "\x1b[H\x1b[J" : "");
    if (const int status = showOnce(); status != exitDone) return status;
    if (sigtimedwait(&interrupt, nullptr, &second) == SIGINT) return exitDone;
    if (!live) std::printf("\n");
  }
}

int show(const Arguments& options) {
  if (options.empty()) return showOnce();
  if (options.size() == 1 && options[0] == "--watch") return watch();
  return misused("show takes --watch or nothing");
}

int set(const Arguments& arguments) {
  if (arguments.size() != 2) return misused("set takes a key and its value");
  const auto bytes = parseHex(arguments[1]);
  if (!bytes) return misused("not hexadecimal bytes: " + std::string(arguments[1]));
  return editKey(arguments[0], [&bytes](SMCMachine& machine, Key& key) -> std::string {
    if (bytes->size() != key.size) {
      return printable(key.code) + " has a data size of " + std::to_string(key.size);
    }
    Data value{};
    std::copy(bytes->begin(), bytes->end(), value.begin());
    machine.setValue(key, value, monotonicTime());
    return "";
  });
}

int remove(const Arguments& arguments) {
  if (arguments.size() != 1) return misused("remove takes a key");
  return editKey(arguments[0], [](SMCMachine& machine, Key& key) {
    machine.remove(key, monotonicTime());
    return "";
  });
}

int injectFailure(const Arguments& arguments) {
  Failure failure = Failure::none;
  std::int32_t value = 0;
  if (arguments.size() == 3) {
    const bool result = arguments[1] == "result";
    if (!result && arguments[1] != "call") return misused("fail takes result, call or clear");
    const auto number = parseNumber<std::int32_t>(arguments[2]);
    if (!number || *number == 0 || (result && (*number < 1 || *number > 255))) {
      return misused(result ? "a failing result is 1 to 255"
                            : "a failing call is a signed 32-bit number other than 0");
    }
    failure = result ? Failure::result : Failure::call;
    value = *number;
  } else if (arguments.size() != 2 || arguments[1] != "clear") {
    return misused("fail takes a key and result N, call N or clear");
  }
  return editKey(arguments[0], [failure, value](SMCMachine&, Key& key) {
    key.failure = failure;
    key.failureValue = value;
    return "";
  });
}

int run(const Arguments& arguments) {
  if (arguments.empty()) return misused("what shall it do?");
  for (const std::string_view argument : arguments) {
    if (argument != "--help" && argument != "-h") continue;
    std::printf("%s", help);
    return exitDone;
  }
  if (arguments.size() == 1 && arguments[0] == "--version") {
    std::printf("smcsim " QUORVANE_VERSION "\n");
    return exitDone;
  }
  const Arguments rest(arguments.begin() + 1, arguments.end());
  if (arguments[0] == "create") return create(rest);
  if (arguments[0] == "show") return show(rest);
  if (arguments[0] == "set") return set(rest);
  if (arguments[0] == "remove") return remove(rest);
  if (arguments[0] == "fail") return injectFailure(rest);
  return misused("no command " + std::string(arguments[0]));
}

}  // namespace
}  // namespace quorvane::simulation

int main(int argc, char** argv) {
  return quorvane::simulation::run({argv + 1, argv + argc});
}
