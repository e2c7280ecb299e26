// The serial queue behind dispatch_queue_t: a FIFO under a mutex, drained by a thread of its own
// or, for the main queue, by dispatch_main(). A queue with a thread owns itself: it is freed on
// that thread, once the last reference is gone and all that was submitted has run. Callable from
// any thread.
#pragma once

#include <dispatch/dispatch.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

namespace quorvane::dispatch {

/// Ends the process, by std::terminate(), with one line on standard error: the layer cannot go on,
/// or its caller breaks the rules of the calls. `error` is an error number that says how.
[[noreturn]] void fatal(const char* what, int error);

struct Block {
  dispatch_function_t work;
  void* context;
};

class SerialQueue final : public dispatch_queue_main_s {
 public:
  /// A queue that nothing drains yet, with one reference.
  explicit SerialQueue(const char* name) : label(name != nullptr ? name : "") {}
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  /// A queue with a thread, or the end of the process when there is none to be had.
  static SerialQueue* createWithThread(const char* name);

  void async(Block block);
  /// Returns when the block has run. Fatal on the queue itself, where it would wait for ever.
  void sync(Block block);
  /// For good: blocks that have not begun never run.
  void suspend();
  void retain();
  /// After the last one the queue may be gone.
  void release();

  /// Runs blocks on the calling thread until the queue is released and empty.
  void drain();

 private:
  std::optional<Block> nextBlock();

  const std::string label;

  std::mutex mutex;  // guards what follows
  std::condition_variable changed;
  std::deque<Block> blocks;
  bool suspended = false;
  int references = 1;
};

}  // namespace quorvane::dispatch
