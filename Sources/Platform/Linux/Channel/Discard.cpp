#include "Platform/Linux/Channel/Discard.h"

#include <sched.h>

#include <memory>
#include <semaphore>

#include "Platform/Linux/DetachedThread.h"

namespace quorvane::xpc {
namespace {

/// The exiting thread and the caller each hold the socket in a table of descriptors of their own
/// for a moment, so that the caller's close is not the last one.
struct Handover {
  std::binary_semaphore isCopied{0};
  std::binary_semaphore isClosed{0};
  bool hasCopy = false;
};
using SharedHandover = std::shared_ptr<Handover>;

void* holdUntilClosed(void* argument) {
  const std::unique_ptr<const SharedHandover> handover(static_cast<SharedHandover*>(argument));
  Handover& state = **handover;
  state.hasCopy = unshare(CLONE_FILES) == 0;
  state.isCopied.release();
  state.isClosed.acquire();
  return nullptr;
}

}  // namespace

bool discard(Descriptor& socket) {
  const auto handover = std::make_shared<Handover>();
  auto argument = std::make_unique<SharedHandover>(handover);
  if (startDetachedThread(holdUntilClosed, argument.get()) != 0) return false;
  static_cast<void>(argument.release());  // the thread's
  handover->isCopied.acquire();
  if (handover->hasCopy) socket = Descriptor();
  handover->isClosed.release();
  return !socket;
}

}  // namespace quorvane::xpc
