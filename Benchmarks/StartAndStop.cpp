// The times from exec until the helper listens, from connect to the first reply, and from SIGTERM
// to the helper's exit.
#include <sys/stat.h>

#include "Bench.h"

namespace quorvane::bench {

void measureStartAndStop(const Setting& setting) {
  const std::string log = setting.mac.root.path("/log");
  mkfifo(log.c_str(), 0600);
  Samples starts, connects, stops, bare;
  for (int round = 0; round < setting.rounds(100); ++round) {
    auto start = Clock::now();
    Process("true").stop(0);
    bare.push_back(microsecondsSince(start));

    start = Clock::now();
    Process process("QuorvaneFanHelper 2>" + log);
    std::ifstream lines(log);
    for (std::string line; line.find("listening") == std::string::npos;) {
      if (!std::getline(lines, line)) throw std::runtime_error("the helper did not start");
    }
    starts.push_back(microsecondsSince(start));

    start = Clock::now();
    const test::RawChannel channel = connect();
    connects.push_back(microsecondsSince(start));

    for (char fan = '0'; fan <= '9'; ++fan)
      call(channel, test::writeRequest({'F', fan, 'M', 'd'}, 1));
    start = Clock::now();
    if (process.stop(SIGTERM) != 0) throw std::runtime_error("the helper did not end well");
    stops.push_back(microsecondsSince(start));
  }
  print({"exec to listening", "us", starts, bare, 10});
  print({"connect to first reply", "us", connects});
  print({"SIGTERM to exit, ten fans forced", "us", stops});
}

}  // namespace quorvane::bench
