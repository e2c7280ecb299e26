// A bounded number of places, so that peers cannot make the helper hold ever more. Shared by those
// who take places and those who hold one; callable from any thread.
#pragma once

#include <memory>
#include <mutex>

namespace quorvane::xpc {

/// A place taken. It is given back, once, when its last copy goes.
using Place = std::shared_ptr<const void>;

class Places : public std::enable_shared_from_this<Places> {
 public:
  explicit Places(int count) : free(count) {}

  /// Null when all are taken.
  [[nodiscard]] Place take() {
    {
      const std::lock_guard lock(mutex);
      if (free == 0) return nullptr;
      --free;
    }
    return {this, [self = shared_from_this()](const void*) { self->giveBack(); }};
  }

 private:
  void giveBack() {
    const std::lock_guard lock(mutex);
    ++free;
  }

  std::mutex mutex;
  int free;
};

}  // namespace quorvane::xpc
