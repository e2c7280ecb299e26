// Many requests under way at once: how many the helper does in a second.
#include <poll.h>

#include "Floor.h"
#include "Groups.h"

namespace quorvane::bench {
namespace {

void waitForAny(const std::vector<Channel>& channels) {
  std::vector<pollfd> waiting;
  for (const Channel& channel : channels) waiting.push_back({channel.descriptor(), POLLIN, 0});
  poll(waiting.data(), waiting.size(), -1);
}

/// What a pipeline has come to: requests a second, and what the server itself takes for one.
struct Rates {
  Samples perSecond;
  Samples processorTime;

  void measure(std::vector<Channel>& channels, const Program& server, const std::string& request) {
    constexpr int count = 4000;
    const double used = processorMicroseconds(server.pid());
    const auto start = Clock::now();
    pipeline(channels, {request}, count);
    perSecond.add(count * 1e6 / microsecondsSince(start));
    processorTime.add((processorMicroseconds(server.pid()) - used) / count);
  }
};

}  // namespace

void pipeline(std::vector<Channel>& channels, const std::vector<std::string>& requests, int count) {
  std::size_t next = 0;
  int left = count;
  const auto sendOne = [&](const Channel& channel) {
    channel.send(requests[next]);
    next = (next + 1) % requests.size();
    --left;
  };
  int underWay = 0;
  for (const Channel& channel : channels) {
    for (int i = 0; i < requestsInFlight && left > 0; ++i, ++underWay) sendOne(channel);
  }
  while (underWay > 0) {
    int answered = 0;
    for (Channel& channel : channels) {
      while (channel.receive(/*waiting=*/false)) {
        ++answered;
        --underWay;
        if (left == 0) continue;
        sendOne(channel);
        ++underWay;
      }
    }
    if (answered == 0) waitForAny(channels);
  }
}

void measurePipelines(Report& report, const Setting& setting) {
  const std::string request = writeRequest("F0Tg", 2500);
  const Machine machine = setting.machine("pipelines");
  for (const int clients : {1, 8}) {
    const std::string what =
        "64 writes in flight, " + std::to_string(clients) + (clients == 1 ? " client" : " clients");
    Report::progress(what);
    const Helper helper(Helper::fast, machine);
    Floor floor(FloorWork::hopAndLine, machine.root, clients);
    std::vector<Channel> channels;
    for (int i = 0; i < clients; ++i) channels.push_back(machine.enter());
    Rates measured, bare;
    for (int round = 0; round < setting.rounds(100); ++round) {
      measured.measure(channels, helper, request);
      bare.measure(floor.channels, floor.server, request);
    }
    report.add({what,
                "1/s",
                std::move(measured.perSecond),
                std::move(bare.perSecond),
                {"ratio >= 0.8", [](double rate, double most) { return rate >= 0.8 * most; }},
                /*moreIsBetter=*/true});
    report.add({"  processor time of one", "us", std::move(measured.processorTime),
                std::move(bare.processorTime)});
  }
}

}  // namespace quorvane::bench
