// A companion in C++: holds a fan at a speed until Enter or the end of its input, and reports what
// happens to it.
//
// usage: companion FAN RPM
#include <FanControlClient/FanControlClient.h>
#include <FanControlClient/LeaseKeeper.h>

#include <cstdlib>
#include <iostream>

using quorvane::FanEvent;

static const char* name(FanEvent event) {
  switch (event) {
    case FanEvent::forced:
      return "forced";
    case FanEvent::unreachable:
      return "the helper is unreachable";
    case FanEvent::givenBack:
      return "given back";
    case FanEvent::periodOver:
      return "given back after the longest manual period";
    case FanEvent::takenBack:
      return "taken back";
    case FanEvent::refused:
      return "refused";
  }
  return "";
}

int main(int argc, char* argv[]) {
  if (argc != 3) return 2;
  quorvane::FanControlClient client;
  if (!client.connect()) {
    std::cerr << client.error() << "\n";
    return 1;
  }
  if (const auto report = client.status()) {
    for (const auto& [key, value] : *report) std::cout << key << ": " << value << std::endl;
  }
  // The handler runs on the keeper's thread; a program with a window would post to its own.
  quorvane::LeaseKeeper keeper([](int fan, FanEvent event, const std::string& text) {
    std::cout << "fan " << fan << ": " << name(event) << ". " << text << std::endl;
  });
  keeper.hold(std::atoi(argv[1]), std::atoll(argv[2]));
  std::cin.get();
}  // the keeper gives the fan back
