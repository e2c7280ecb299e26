// The serial queue behind dispatch_queue_t: a FIFO under a mutex, drained by its own thread or, for
// the main queue, by dispatch_main(). A queue with a thread owns itself: that thread frees it after
// the last reference is gone and all submitted blocks have run. Callable from any thread.
#pragma once

#include <dispatch/dispatch.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

namespace quorvane::dispatch {

/// Ends the process by std::terminate(), with one line on standard error. For a layer that cannot
/// continue, and for a caller that violates a contract. `error` is an errno value.
[[noreturn]] void fatal(const char* what, int error);

struct Block {
  dispatch_function_t work;
  void* context;
};

class SerialQueue final : public dispatch_queue_main_s {
 public:
  /// Creates a queue with one reference and no thread.
  explicit SerialQueue(const char* name) : label(name != nullptr ? name : "") {}
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  /// Creates a queue with a thread. Ends the process if no thread can be started.
  static SerialQueue* createWithThread(const char* name);

  void async(Block block);
  /// Returns when the block has run. Fatal on the queue itself, where it would deadlock.
  void sync(Block block);
  /// Permanent: blocks that have not started never run.
  void suspend();
  void retain();
  /// After the last release the queue may be gone.
  void release();

  /// Runs blocks on the calling thread until the queue is released and empty.
  void drain();

 private:
  std::optional<Block> nextBlock();

  const std::string label;

  std::mutex mutex;  // guards the members below
  std::condition_variable changed;
  std::deque<Block> blocks;
  bool suspended = false;
  int references = 1;
};

}  // namespace quorvane::dispatch
