#include "Platform/Linux/Channel/Isolation.h"

#include <sched.h>

#include "Platform/Dispatch.h"
#include "Platform/NoDestructor.h"

namespace quorvane::xpc {
namespace {

struct IsolatedThread {
  IsolatedThread() {
    queue.sync([this] { isIsolated = unshare(CLONE_FILES) == 0; });
  }

  const dispatch::Queue queue{"isolated"};
  bool isIsolated = false;
};

}  // namespace

bool runIsolated(const std::function<void()>& block) {
  static const NoDestructor<IsolatedThread> thread;
  if (thread->isIsolated) thread->queue.sync(block);
  return thread->isIsolated;
}

}  // namespace quorvane::xpc
