#include "Platform/Linux/Channel/Discard.h"

#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>
#include <semaphore>

#include "Platform/Linux/DetachedThread.h"

namespace quorvane::xpc {
namespace {

/// Closing can hang in the kernel forever, even in an exit. This many kernel stacks take 16 MiB.
constexpr std::size_t maxHangingThreads = 1024;

/// For a moment the exiting thread and the caller each hold the socket in a descriptor table of
/// their own, so that the caller's close is not the last one.
struct Handover {
  std::binary_semaphore isCopied{0};
  std::binary_semaphore isClosed{0};
  bool hasCopy = false;
  pid_t thread = 0;
};
using SharedHandover = std::shared_ptr<Handover>;

void* holdUntilClosed(void* argument) {
  const std::unique_ptr<const SharedHandover> handover(static_cast<SharedHandover*>(argument));
  Handover& state = **handover;
  state.hasCopy = unshare(CLONE_FILES) == 0;
  state.thread = gettid();
  state.isCopied.release();
  state.isClosed.acquire();
  return nullptr;
}

bool hasEnded(pid_t thread) {
  return thread == 0 || tgkill(getpid(), thread, 0) != 0;
}

}  // namespace

bool discard(Descriptor& socket) {
  static std::array<pid_t, maxHangingThreads> threads{};
  pid_t* const place = std::ranges::find_if(threads, hasEnded);
  if (place == threads.end()) return false;
  const auto handover = std::make_shared<Handover>();
  auto argument = std::make_unique<SharedHandover>(handover);
  if (startDetachedThread(holdUntilClosed, argument.get()) != 0) return false;
  static_cast<void>(argument.release());  // now owned by the thread
  handover->isCopied.acquire();
  *place = handover->thread;
  if (handover->hasCopy) socket = Descriptor();
  handover->isClosed.release();
  return !socket;
}

}  // namespace quorvane::xpc
