// The real dispatch under the conformance suite: our own layer on Linux, libdispatch on macOS.
#include <future>

#include "Platform/Dispatch.h"
#include "Support/DispatchUnderTest.h"

void quorvane::dispatchtest::pass(std::chrono::milliseconds span) {
  const dispatch::Queue clock("clock");
  std::promise<void> passed;
  const dispatch::OneShotTimer timer(clock, span, [&passed] { passed.set_value(); });
  passed.get_future().wait();
  clock.sync([] {});  // after the handler's last use of the promise
}
