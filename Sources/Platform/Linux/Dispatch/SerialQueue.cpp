#include "Platform/Linux/Dispatch/SerialQueue.h"

#include <sys/prctl.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>

#include "Platform/Linux/DetachedThread.h"

namespace quorvane::dispatch {
namespace {

/// The queue that the calling thread drains.
thread_local const SerialQueue* drainedHere = nullptr;

/// A block that another thread waits for. It lives in that thread's frame, which may end as soon as
/// `hasRun` is true and the mutex is free. It must not be touched afterwards.
struct SyncCall {
  Block block;
  std::mutex mutex{};
  std::condition_variable done{};
  bool hasRun = false;

  static void run(void* context) {
    auto& call = *static_cast<SyncCall*>(context);
    call.block.work(call.block.context);
    const std::lock_guard lock(call.mutex);
    call.hasRun = true;
    call.done.notify_one();
  }
};

/// An uncaught exception would end the process where it is thrown. Here it first unwinds the
/// block's frames, which release what they hold, because the terminate handler may need it.
/// libdispatch on macOS does the same (object.m, _dispatch_client_callout).
void run(const Block& block) {
  try {
    block.work(block.context);
  } catch (...) {
    std::terminate();
  }
}

}  // namespace

void fatal(const char* what, int error) {
  std::fprintf(stderr, "dispatch: %s: %s\n", what, std::strerror(error));
  std::terminate();
}

SerialQueue* SerialQueue::createWithThread(const char* name) {
  auto* queue = new SerialQueue(name);
  const int error = startDetachedThread(
      [](void* argument) -> void* {
        auto* own = static_cast<SerialQueue*>(argument);
        prctl(PR_SET_NAME, own->label.c_str());
        own->drain();
        delete own;
        return nullptr;
      },
      queue);
  if (error != 0) fatal("no thread for a queue", error);
  return queue;
}

void SerialQueue::async(Block block) {
  const std::lock_guard lock(mutex);
  blocks.push_back(block);
  changed.notify_one();
}

void SerialQueue::sync(Block block) {
  if (drainedHere == this) fatal("dispatch_sync onto the queue that it is called on", EDEADLK);
  SyncCall call{block};
  async({SyncCall::run, &call});
  std::unique_lock lock(call.mutex);
  call.done.wait(lock, [&call] { return call.hasRun; });
}

void SerialQueue::suspend() {
  const std::lock_guard lock(mutex);
  suspended = true;
}

void SerialQueue::retain() {
  const std::lock_guard lock(mutex);
  ++references;
}

void SerialQueue::release() {
  // Notifies under the lock. Without it the queue's thread could free the condition too early.
  const std::lock_guard lock(mutex);
  --references;
  changed.notify_one();
}

void SerialQueue::drain() {
  drainedHere = this;
  while (const std::optional<Block> block = nextBlock()) run(*block);
}

std::optional<Block> SerialQueue::nextBlock() {
  std::unique_lock lock(mutex);
  changed.wait(lock, [this] { return blocks.empty() ? references == 0 : !suspended; });
  if (blocks.empty()) return std::nullopt;
  const Block block = blocks.front();
  blocks.pop_front();
  return block;
}

}  // namespace quorvane::dispatch
